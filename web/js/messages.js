// Every error code the product can answer, in words. The one place where a
// code becomes a message: no screen shows a bare number.

const RELOAD = 'The page and the server do not agree. Reload the page and try again.';

const MESSAGES = new Map([
  [0, 'The server cannot be reached. Check that it is running and try again.'],
  // The web API server.
  [101, RELOAD],
  [102, 'The server does not offer this function. Reload the page; if it goes on, the server needs an update.'],
  [103, 'The server does not offer this function. Reload the page; if it goes on, the server needs an update.'],
  [104, 'The server does not offer this version of the function. Reload the page.'],
  [105, RELOAD],
  [106, 'Your session has ended. Sign in again to go on where you were.'],
  [107, 'The server is busy right now. Wait a moment and try again.'],
  [108, 'Your session could not be verified. Sign in again.'],
  [109, 'The request was too large for the server.'],
  [110, 'The server took too long to answer. Try a narrower search.'],
  [111, 'The server stopped before it answered. Try again.'],
  [112, 'Wrong account or password.'],
  [113, 'Too many failed sign-ins. Wait a few minutes before you try again.'],
  [114, 'The server could not start the request. Try again later.'],
  [115, 'Enter your account and your password.'],
  [116, 'The file is no longer there, or it is not in an indexed folder.'],
  [118, 'You may not read this file.'],
  // The search module.
  [117, 'Something went wrong on the server. Try again; if it goes on, tell your administrator.'],
  [120, 'A value is missing or not valid.'],
  [121, 'The search service answered in a way the server did not understand. Try again.'],
  [502, 'The storage system could not complete the operation. Try again later.'],
  [503, 'The server could not act as your account.'],
  [507, 'You are not allowed to do this.'],
  [605, 'The search service is not running. Ask your administrator to start it.'],
  [800, 'A shared folder could not be found.'],
  [801, 'A user account could not be looked up.'],
  [1600, 'A newer search took the place of this one.'],
  // The search daemon.
  [1000, 'The search service did not understand the request.'],
  [1001, 'The search could not be understood: it has too many words.'],
  [1002, 'The search service refused the request as malformed.'],
  [1003, 'The document is no longer in the index, or you may not read it.'],
  [1004, 'The index is being checked or repaired. Try again later.'],
  [1005, 'The search service had an internal error. Try again.'],
  [1006, 'Too many counts were asked for at once.'],
]);

// Messages that depend on what was being done.
const IN_CONTEXT = new Map([
  ['folder:120', 'The folder was not accepted. Check that the path is an existing folder inside a shared folder, that you may read it, that it is not indexed already, and that its name is valid.'],
  ['folder:507', 'Only the owner of this folder or an administrator may change it.'],
  ['status:507', 'Only administrators may pause or resume indexing.'],
  ['login:120', 'Enter your account and your password.'],
]);

export function messageFor(code, context = '') {
  return (
    IN_CONTEXT.get(`${context}:${code}`) ||
    MESSAGES.get(code) ||
    `Something unexpected happened (error ${code}). Try again; if it goes on, tell your administrator.`
  );
}

// Codes that mean the session is gone: sign in again, then go on.
export const SESSION_LOST = new Set([106, 108]);
