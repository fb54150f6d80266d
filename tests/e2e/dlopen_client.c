/* A C host of libkivreg.so: loads the library with dlopen, takes every
 * function through dlsym, and registers a document given as text.
 *   dlopen_client <library> <port> <user> <password> <xml-file>
 * Exit status: 0 registered; 10 + n when step n failed; 2 when the run
 * returned something other than 0 (its result is printed). */

#include <dlfcn.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <uchar.h>

static const char* const kFunctions[] = {
    "KivRegUseHttps",
    "KivRegDoHttpTrace",
    "KivRegDoDataTrace",
    "KivRegSetOldTransferOn",
    "KivRegSetNewTransferOn",
    "KivRegSetXMLStdin",
    "KivRegSetXMLFile",
    "KivRegSetXML",
    "KivRegSetReceiveTimeout",
    "KivRegSetSendTimeout",
    "KivRegSetConnectTimeout",
    "KivRegSetConnectData",
    "KivRegSetConnectFile",
    "KivRegSetConnectFileWithKeyFile",
    "KivRegSetSymbolFile",
    "KivRegSetLogfile",
    "KivRegSendReceiveData",
    "KivRegPerformConfig",
    "KivRegPerformConfigWithKeyFile",
    "KivRegPerformConfigWithArguments",
    "KivRegShowConfig",
    "KivRegShowConfigWithKeyFile",
};

/* ASCII (and Latin-1) to UTF-16: enough for the arguments of this client. */
static char16_t* widen(const char* s) {
    size_t n = strlen(s);
    char16_t* w = malloc((n + 1) * sizeof *w);
    for (size_t i = 0; i <= n; ++i) w[i] = (unsigned char)s[i];
    return w;
}

static char* slurp(const char* path) {
    FILE* f = fopen(path, "rb");
    if (!f) return NULL;
    fseek(f, 0, SEEK_END);
    long n = ftell(f);
    fseek(f, 0, SEEK_SET);
    char* buf = malloc((size_t)n + 1);
    size_t got = fread(buf, 1, (size_t)n, f);
    buf[got] = 0;
    fclose(f);
    return buf;
}

int main(int argc, char** argv) {
    if (argc != 6) return 9;
    void* lib = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
    if (!lib) {
        fprintf(stderr, "dlopen: %s\n", dlerror());
        return 10;
    }
    for (size_t i = 0; i < sizeof kFunctions / sizeof kFunctions[0]; ++i) {
        if (!dlsym(lib, kFunctions[i])) {
            fprintf(stderr, "missing %s\n", kFunctions[i]);
            return 11;
        }
    }
    /* dlsym hands out an object pointer; POSIX allows reading a function
       pointer through it this way, which ISO C's cast rules do not. */
    int (*setXml)(const char16_t*);
    int (*setConnect)(const char16_t*, const char16_t*, const char16_t*, const char16_t*);
    int (*setTimeout)(const char16_t*);
    void (*setLogfile)(const char16_t*);
    int (*run)(void);
    *(void**)(&setXml) = dlsym(lib, "KivRegSetXML");
    *(void**)(&setConnect) = dlsym(lib, "KivRegSetConnectData");
    *(void**)(&setTimeout) = dlsym(lib, "KivRegSetConnectTimeout");
    *(void**)(&setLogfile) = dlsym(lib, "KivRegSetLogfile");
    *(void**)(&run) = dlsym(lib, "KivRegSendReceiveData");

    char* xml = slurp(argv[5]);
    if (!xml) return 12;
    char16_t* wxml = widen(xml);
    char16_t* host = widen("127.0.0.1");
    char16_t* port = widen(argv[2]);
    char16_t* user = widen(argv[3]);
    char16_t* pass = widen(argv[4]);
    char16_t* empty = widen("");
    char16_t* thirty = widen("30");

    setLogfile(NULL); /* refused with a message, never a crash */
    if (setXml(wxml) != 1) return 13;
    if (setConnect(host, port, empty, pass) != -1) return 14; /* no user: refused */
    if (setConnect(host, port, user, pass) != 1) return 15;
    if (setTimeout(empty) != -1 || setTimeout(thirty) != 1) return 16;
    int rc = run();
    printf("KivRegSendReceiveData=%d\n", rc);

    free(xml);
    free(wxml);
    free(host);
    free(port);
    free(user);
    free(pass);
    free(empty);
    free(thirty);
    dlclose(lib);
    return rc == 0 ? 0 : 2;
}
