// File and path utilities of the module. None keeps state. Only ProcessDir
// (Error 502) and ChownKestOndri (Error 801) throw; the others answer false
// or "" on failure and leave errno as the system set it.
#ifndef KESTONDRI_COMMON_UTIL_H_
#define KESTONDRI_COMMON_UTIL_H_

#include <dirent.h>

#include <functional>
#include <string>

#include "common/string_helpers.h"

namespace kestondri {

// A regular file; a symbolic link is not followed.
bool IsFileExist(const std::string& path);
// A directory; with `follow_link` a symbolic link is followed through its
// target as written (a relative target is taken from the working directory).
bool IsDirExist(const std::string& path, bool follow_link);
// Only DT_DIR entries count; an entry of unknown type is never a directory.
bool IsDirentDir(const struct dirent64* entry, const std::string& full_path);
// Whether the current identity's permission word on `path` has any bit of
// `mask` (4 read, 2 write, 1 execute).
bool CheckACLPerm(const std::string& path, int mask);
bool IsMountPoint(const std::string& path);
// True when `prefix` first occurs in `s` at index 0; "" always matches.
bool StringStartWith(const std::string& s, const std::string& prefix);
// After the last '/'; the whole path without one; "" after a trailing '/'.
std::string Basename(const std::string& path);
// Before the last '/'; the whole path without one (not "."); "" for "/x".
std::string Dirname(const std::string& path);
// Of the last component, after its last '.'; "" without one.
std::string GetFileExtension(const std::string& path, bool to_lower);
// "" when realpath() fails.
std::string RealPath(const std::string& path);
// A missing file counts as removed.
bool Unlink(const std::string& path);
bool MVFile(const std::string& src, const std::string& dst);
bool CPFile(const std::string& src, const std::string& dst);
// Hands `path` (not recursively, through a symbolic link) to the package's
// service user. Throws Error 801 when that user is unknown.
bool ChownKestOndri(const std::string& path);
// Depth-first walk: `callback` sees every entry (callback before descent);
// its exceptions are logged and the walk goes on. Symbolic links to folders
// are not followed. Throws Error 502 when a folder cannot be opened.
void ProcessDir(const std::string& dir, const std::function<void(const std::string&)>& callback);

// Answers are UTF-8, and a path that is not shows a replacement character
// where its bad bytes stand. Such a path travels as a reference that keeps
// its bytes: "hex:" and the bytes in hexadecimal. No absolute path begins so.
std::string PathRef(const std::string& path);
// The path a parameter names: a reference decoded, anything else as it is.
std::string PathFromParam(const std::string& param);

}  // namespace kestondri

#endif  // KESTONDRI_COMMON_UTIL_H_
