/* A C host of libkivreg.so: loads the library with dlopen, takes the
 * functions it calls through dlsym, and registers a document given as text.
 *   dlopen_client <library> <port> <user> <password> <xml-file> [steps]
 * Steps, one letter each, in order (default "r"): r runs a registration,
 * t switches the HTTP trace on, l sets the log file <xml-file>.log, d selects
 * the locale de_DE.UTF-8 as a host with a decimal comma would, c names each
 * descriptor open on a file beside <xml-file> that a child process would
 * inherit, k asks for the connect data on standard input and stores them in
 * <xml-file>.conn under a generated key.
 * Exit status: 0 registered; 10 + n when step n failed; 2 when a run
 * returned something other than 0 (each result is printed). */

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <libgen.h>
#include <locale.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <uchar.h>
#include <unistd.h>

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

static void listInheritable(const char* beside) {
    char* copy = strdup(beside);
    const char* dir = dirname(copy);
    DIR* fds = opendir("/proc/self/fd");
    for (struct dirent* e; fds && (e = readdir(fds));) {
        const int fd = atoi(e->d_name);
        char link[300], target[4096];
        snprintf(link, sizeof link, "/proc/self/fd/%s", e->d_name);
        const ssize_t n = readlink(link, target, sizeof target - 1);
        if (n <= 0 || (fcntl(fd, F_GETFD) & FD_CLOEXEC)) continue;
        target[n] = 0;
        if (strncmp(target, dir, strlen(dir)) == 0) printf("inheritable: %s\n", target);
    }
    if (fds) closedir(fds);
    free(copy);
}

int main(int argc, char** argv) {
    if (argc != 6 && argc != 7) return 9;
    const char* steps = argc == 7 ? argv[6] : "r";
    void* lib = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
    if (!lib) {
        fprintf(stderr, "dlopen: %s\n", dlerror());
        return 10;
    }
    /* dlsym hands out an object pointer; POSIX allows reading a function
       pointer through it this way, which ISO C's cast rules do not. */
    int (*setXml)(const char16_t*);
    int (*setConnect)(const char16_t*, const char16_t*, const char16_t*, const char16_t*);
    int (*setTimeout)(const char16_t*);
    void (*setLogfile)(const char16_t*);
    void (*doTrace)(void);
    int (*run)(void);
    int (*configureWithKey)(const char16_t*);
    *(void**)(&setXml) = dlsym(lib, "KivRegSetXML");
    *(void**)(&setConnect) = dlsym(lib, "KivRegSetConnectData");
    *(void**)(&setTimeout) = dlsym(lib, "KivRegSetConnectTimeout");
    *(void**)(&setLogfile) = dlsym(lib, "KivRegSetLogfile");
    *(void**)(&doTrace) = dlsym(lib, "KivRegDoHttpTrace");
    *(void**)(&run) = dlsym(lib, "KivRegSendReceiveData");
    *(void**)(&configureWithKey) = dlsym(lib, "KivRegPerformConfigWithKeyFile");
    if (!setXml || !setConnect || !setTimeout || !setLogfile || !doTrace || !run ||
        !configureWithKey)
        return 11;

    char* xml = slurp(argv[5]);
    if (!xml) return 12;
    char16_t* wxml = widen(xml);
    char16_t* host = widen("127.0.0.1");
    char16_t* port = widen(argv[2]);
    char16_t* user = widen(argv[3]);
    char16_t* pass = widen(argv[4]);
    char16_t* empty = widen("");
    char16_t* thirty = widen("30");
    char* logName = malloc(strlen(argv[5]) + 5);
    sprintf(logName, "%s.log", argv[5]);
    char16_t* logFile = widen(logName);
    char* connName = malloc(strlen(argv[5]) + 6);
    sprintf(connName, "%s.conn", argv[5]);
    char16_t* connFile = widen(connName);

    setLogfile(NULL); /* refused with a message, never a crash */
    if (setXml(wxml) != 1) return 13;
    if (setConnect(host, port, empty, pass) != -1) return 14; /* no user: refused */
    if (setConnect(host, port, user, pass) != 1) return 15;
    if (setTimeout(empty) != -1 || setTimeout(thirty) != 1) return 16;
    int rc = 0;
    for (const char* step = steps; *step; ++step) {
        if (*step == 'r') {
            const int result = run();
            printf("KivRegSendReceiveData=%d\n", result);
            fflush(stdout);
            if (result != 0) rc = result;
        } else if (*step == 't') {
            doTrace();
        } else if (*step == 'l') {
            setLogfile(logFile);
        } else if (*step == 'c') {
            listInheritable(argv[5]);
        } else if (*step == 'k') {
            printf("KivRegPerformConfigWithKeyFile=%d\n", configureWithKey(connFile));
        } else if (*step == 'd') {
            if (!setlocale(LC_ALL, "de_DE.UTF-8")) printf("no locale de_DE.UTF-8\n");
        } else {
            return 17;
        }
    }

    free(xml);
    free(wxml);
    free(host);
    free(port);
    free(user);
    free(pass);
    free(empty);
    free(thirty);
    free(logName);
    free(logFile);
    free(connName);
    free(connFile);
    dlclose(lib);
    return rc == 0 ? 0 : 2;
}
