// The web API server's own error codes. They answer requests that never reach
// a module (or whose worker never answered), so they are kept apart from every
// code a module produces (117, 120, 121, 5xx, 6xx, 8xx, 1600). Never renumber:
// clients and the web page branch on them.
#ifndef KESTONDRI_HOST_SERVER_ERROR_CODES_H_
#define KESTONDRI_HOST_SERVER_ERROR_CODES_H_

namespace kestondri {
namespace host {

enum ServerErrorCode : int {
  kErrMissingRoute = 101,    // "api", "method" or "version" missing
  kErrUnknownAPI = 102,      // no module serves the API
  kErrUnknownMethod = 103,   // the API has no such method
  kErrBadVersion = 104,      // the method exists, not in that version
  kErrBadRequest = 105,      // malformed encoding, invalid JSON, wrong content type
  kErrNotLoggedIn = 106,     // no session, an unknown one, or one that expired
  kErrTooBusy = 107,         // every worker busy and the queue full
  kErrBadToken = 108,        // cookie session without the right CSRF token header
  kErrTooLarge = 109,        // body or header over the configured limit
  kErrTimedOut = 110,        // the worker ran past the request time-out
  kErrWorkerEnded = 111,     // the worker crashed or was killed before answering
  kErrLoginFailed = 112,     // wrong account or password
  kErrLoginThrottled = 113,  // too many failed logins for the account or address
  kErrInternal = 114,        // the server could not run the request (fork, pipe)
  kErrBadServerParam = 115,  // a parameter of a server method is missing or wrong
  kErrNoSuchFile = 116,      // download: no regular file there that the user's folders hold
  kErrFileDenied = 118,      // download: the kernel refused the user the file
};

}  // namespace host
}  // namespace kestondri

#endif  // KESTONDRI_HOST_SERVER_ERROR_CODES_H_
