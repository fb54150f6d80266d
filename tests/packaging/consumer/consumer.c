/* A program built against an installed kivreg: stores a connect file, reads it
 * back and loads a document, through the installed header and library. */
#include <kivreg.h>
#include <stdio.h>
#include <string.h>

static int failures;

static void expect(const char* what, int got, int want) {
    if (got != want) {
        fprintf(stderr, "%s: got %d, want %d\n", what, got, want);
        ++failures;
    }
}

int main(int argc, char** argv) {
    char16_t file[4096];
    size_t n = argc == 2 ? strlen(argv[1]) : sizeof file;
    if (n + 1 > sizeof file / sizeof file[0]) {
        fprintf(stderr, "usage: consumer <connect file, ASCII path>\n");
        return 2;
    }
    for (size_t i = 0; i <= n; ++i) file[i] = (unsigned char)argv[1][i];

    expect("configure",
           KivRegPerformConfigWithArguments(file, true, u"u", u"p", u"h", u"8443", true), 0);
    expect("connect file", KivRegSetConnectFileWithKeyFile(file), 1);
    expect("show", KivRegShowConfigWithKeyFile(file), 0);
    expect("document", KivRegSetXML(u"<kivinfo supplier_name=\"S\"/>"), 1);
    return failures == 0 ? 0 : 1;
}
