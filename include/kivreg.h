/*
 * kivreg.h - register a data supplier's document with a directory server.
 *
 * Conventions of this interface:
 *  - Strings are NUL-terminated UTF-16 (char16_t). The library copies what it
 *    keeps; the caller keeps ownership of every string it passes.
 *  - String arguments should be non-null. A null pointer is never
 *    dereferenced: it is taken as an empty string (for KivRegSetLogfile too).
 *  - Setters return 1 when the setting was recorded and -1 when it was refused
 *    (the previous value then stays). Switch setters return nothing.
 *  - KivRegSendReceiveData and the configuration commands return 0 on success
 *    and a negative number on failure; see each function.
 *  - Every message goes to standard output and, once a log file is set, is
 *    appended to that file as well.
 *  - Settings and the loaded document are process-wide. Call the library from
 *    one thread at a time.
 */
#ifndef KIVREG_H
#define KIVREG_H

#ifdef __cplusplus
extern "C" {
#else
#include <stdbool.h>
#include <uchar.h>
#endif

#if defined(KIVREG_BUILDING_LIBRARY)
#define KIVREG_API __attribute__((visibility("default")))
#else
#define KIVREG_API
#endif

/* Switches. */

/* Sends over HTTPS instead of HTTP. */
KIVREG_API void KivRegUseHttps(void);
/* Traces the HTTP exchange (into kivreg_http_trace.log when a log file is set). */
KIVREG_API void KivRegDoHttpTrace(void);
/* Dumps the parsed document to the log before sending. */
KIVREG_API void KivRegDoDataTrace(void);
/* Selects the old transfer document (root qordata); set it before the document. */
KIVREG_API void KivRegSetOldTransferOn(void);
/* Selects the current transfer document again (the default). */
KIVREG_API void KivRegSetNewTransferOn(void);

/* The input document; each call replaces the document loaded before. */

/* Loads the document from standard input; 1 loaded, -1 not loaded. */
KIVREG_API int KivRegSetXMLStdin(void);
/* Loads the document from the named file; 1 loaded, -1 not loaded. */
KIVREG_API int KivRegSetXMLFile(const char16_t* fileName);
/* Loads the document from the given XML text; 1 loaded, -1 not loaded. */
KIVREG_API int KivRegSetXML(const char16_t* xmlText);

/* Settings. */

/* Records the answer timeout in seconds as text (0 = none); 1, or -1 for empty text. */
KIVREG_API int KivRegSetReceiveTimeout(const char16_t* seconds);
/* Records the send timeout in seconds as text (0 = none); 1, or -1 for empty text. */
KIVREG_API int KivRegSetSendTimeout(const char16_t* seconds);
/* Records the connect timeout in seconds as text (0 = none); 1, or -1 for empty text. */
KIVREG_API int KivRegSetConnectTimeout(const char16_t* seconds);
/* Records host, port, user and password (may be empty); 1, or -1 when host, port or user is empty.
 */
KIVREG_API int KivRegSetConnectData(const char16_t* host, const char16_t* port,
                                    const char16_t* user, const char16_t* password);
/* Checks a connect file under the built-in key and records it; 1, or -1 when unreadable or
 * incomplete. */
KIVREG_API int KivRegSetConnectFile(const char16_t* fileName);
/* Checks a connect file whose key is in fileName.key and records it; 1 or -1. */
KIVREG_API int KivRegSetConnectFileWithKeyFile(const char16_t* fileName);
/* Records the symbol file (empty = none); 1, or -1 when it cannot be opened. */
KIVREG_API int KivRegSetSymbolFile(const char16_t* fileName);
/* Appends the log to the named file from now on (null or empty: refused with a message). */
KIVREG_API void KivRegSetLogfile(const char16_t* fileName);

/* Commands. */

/* Runs one registration: 0 status 200; -1 bad input or other status; -2 no connection;
   -10, -11 or a line code when the symbol file fails. */
KIVREG_API int KivRegSendReceiveData(void);
/* Asks for the connection settings on the terminal and stores them; 0 stored, -1 not. */
KIVREG_API int KivRegPerformConfig(const char16_t* fileName, bool useKeyFile);
/* KivRegPerformConfig with a generated key in fileName.key; 0 stored, -1 not. */
KIVREG_API int KivRegPerformConfigWithKeyFile(const char16_t* fileName);
/* Stores the given connection settings; 0 stored, -1 invalid port or not stored. */
KIVREG_API int KivRegPerformConfigWithArguments(const char16_t* fileName, bool useKeyFile,
                                                const char16_t* user, const char16_t* password,
                                                const char16_t* host, const char16_t* port,
                                                bool useHttps);
/* Logs the settings of a connect file without the password; 0 shown, -1 unreadable. */
KIVREG_API int KivRegShowConfig(const char16_t* fileName);
/* KivRegShowConfig for a file whose key is in fileName.key; 0 shown, -1 unreadable. */
KIVREG_API int KivRegShowConfigWithKeyFile(const char16_t* fileName);

#ifdef __cplusplus
}
#endif

#endif /* KIVREG_H */
