// Texts for the client library's status codes.
#include "zor/zor_client.h"

extern "C" const char* zor_strerror(int status) {
    switch (status) {
    case ZOR_OK: return "success";
    case ZOR_E_NO_HOST: return "no ZOR host is running";
    case ZOR_E_TIMEOUT: return "the host did not answer in time";
    case ZOR_E_HOST_GONE: return "the host ended during the call";
    case ZOR_E_INVALID_ARG: return "invalid argument";
    case ZOR_E_TOO_LARGE: return "data too large for its channel";
    case ZOR_E_REFUSED: return "the host refused the request (see its log)";
    case ZOR_E_NOT_REGISTERED: return "no registered module with that number or name";
    case ZOR_E_SYSTEM: return "an operating-system call failed in the client";
    case ZOR_E_QUEUE_FULL: return "the deferred list is full or stays locked";
    case ZOR_E_NOT_CONNECTED: return "no pipe is open on this connection";
    case ZOR_E_PIPE: return "the pipe broke or lost step; reopen it";
    case ZOR_E_NAME_TOO_LONG: return "module name longer than 19 characters or not UTF-8";
    case ZOR_E_NO_SLOT: return "every async result slot is in use";
    case ZOR_E_LAYOUT: return "the host's statistics area has a layout this program does not know";
    case ZOR_E_UNTRUSTED: return "what answered is not the host's own: it belongs to another user";
    case ZOR_E_OVERWRITTEN: return "the flight recorder's record was overwritten";
    default: return "unknown status";
    }
}
