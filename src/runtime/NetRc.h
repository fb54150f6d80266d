#pragma once
// Return codes of the network and TLS layer, the one list of them. The HTTP
// transport hands these codes up unchanged and the registration run logs them
// as "NI RC" values, so their numbers are part of what a user sees in a log.
// 0 is success; every failure kind has a negative code of its own.

namespace kivreg::rt {

enum NetRc : int {
    NET_OK = 0,
    NET_ERR_RESOLVE = -1,      // host name or service could not be resolved
    NET_ERR_REFUSED = -2,      // every address refused the connection
    NET_ERR_TIMEOUT = -3,      // connect, read, write or handshake ran out of time
    NET_ERR_CLOSED = -4,       // the peer closed or reset the connection
    NET_ERR_UNREACHABLE = -5,  // no route to any of the addresses
    NET_ERR_IO = -6,           // any other socket failure (errno-level)
    NET_ERR_INVALID = -7,      // bad handle or argument
    NET_ERR_TLS = -8,          // TLS set-up, handshake or record failure
    NET_ERR_TLS_VERIFY = -9,   // the server certificate or its host name was not accepted
    NET_ERR_PROTOCOL = -10,    // the answer broke HTTP framing (bad chunk size, bad length)
    NET_ERR_LIMIT = -11,       // the answer exceeded a size bound (header 256 KiB, body 64 MiB)
    NET_ERR_PROXY = -12,       // the proxy would not open a tunnel to the server
};

// A short English name of the code, for traces.
const char* netRcText(int rc) noexcept;

}  // namespace kivreg::rt
