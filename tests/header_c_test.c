/* Compiled as C11: the public header must stand alone in a C program. */
#include "kivreg.h"

/* Every declaration must have the type a C caller expects. */
static void (*const switches[])(void) = {
    KivRegUseHttps,         KivRegDoHttpTrace,      KivRegDoDataTrace,
    KivRegSetOldTransferOn, KivRegSetNewTransferOn,
};
static int (*const oneString[])(const char16_t*) = {
    KivRegSetXMLFile,
    KivRegSetXML,
    KivRegSetReceiveTimeout,
    KivRegSetSendTimeout,
    KivRegSetConnectTimeout,
    KivRegSetConnectFile,
    KivRegSetConnectFileWithKeyFile,
    KivRegSetSymbolFile,
    KivRegPerformConfigWithKeyFile,
    KivRegShowConfig,
    KivRegShowConfigWithKeyFile,
};
static int (*const noArgs[])(void) = {KivRegSetXMLStdin, KivRegSendReceiveData};
static int (*const connectData)(const char16_t*, const char16_t*, const char16_t*,
                                const char16_t*) = KivRegSetConnectData;
static void (*const logfile)(const char16_t*) = KivRegSetLogfile;
static int (*const perform)(const char16_t*, bool) = KivRegPerformConfig;
static int (*const performArgs)(const char16_t*, bool, const char16_t*, const char16_t*,
                                const char16_t*, const char16_t*,
                                bool) = KivRegPerformConfigWithArguments;

int kivreg_header_c_test_count(void);
int kivreg_header_c_test_count(void) {
    return (int)(sizeof switches / sizeof switches[0] + sizeof oneString / sizeof oneString[0] +
                 sizeof noArgs / sizeof noArgs[0]) +
           (connectData != 0) + (logfile != 0) + (perform != 0) + (performArgs != 0);
}
