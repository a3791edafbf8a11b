// The platform's C library: users, groups and identity switching, shared
// folders and privileges, quota, ACLs, the user home service, string lists,
// process helpers, file copy, and the file-index path functions.
//
// Conventions shared by every function here:
// - An int result is negative on failure; KLIBCErrGet() then tells why with
//   one of the KLIB_ERR_* codes (per thread, overwritten by the next failing
//   call, never cleared by a successful one).
// - Records and lists handed out by a *Get/*Alloc function are owned by the
//   caller and released with the matching *Free function.
// - The functions read the system's user and group databases through NSS and
//   the shared-folder configuration /etc/kest/shares.conf; none of them is
//   guaranteed to be thread-safe (callers serialise them).
#ifndef KEST_KLIB_H_
#define KEST_KLIB_H_

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#ifdef __cplusplus
#include <string>
#include <vector>
extern "C" {
#endif

#ifndef TRUE
#define TRUE 1
#endif
#ifndef FALSE
#define FALSE 0
#endif
typedef int BOOL;

// ---------------------------------------------------------------------------
// Error codes returned by KLIBCErrGet().
enum {
  KLIB_ERR_NONE = 0,
  KLIB_ERR_BAD_PARAM = 0x0100,  // a null pointer, an empty name, a short buffer
  KLIB_ERR_OUT_OF_MEMORY = 0x0200,
  KLIB_ERR_SYSTEM = 0x0300,            // a system call failed; errno tells more
  KLIB_ERR_USER_NOT_FOUND = 0x1D00,    // no such user in the user database
  KLIB_ERR_GROUP_NOT_FOUND = 0x1E00,   // no such group in the group database
  KLIB_ERR_CONFIG = 0x2000,            // /etc/kest/shares.conf is missing or malformed
  KLIB_ERR_SHARE_NOT_FOUND = 0x2100,   // no such shared folder
  KLIB_ERR_NOT_IN_SHARE = 0x2200,      // the path lies in no shared folder
  KLIB_ERR_SERVICE_DISABLED = 0x2300,  // the user home service is off
  KLIB_ERR_QUOTA_USER = 0x2400,        // the user's quota cannot take the size
  KLIB_ERR_NO_SPACE = 0x2900,          // the volume has not enough free space
  KLIB_ERR_FORK = 0x3000,              // fork failed
};

int KLIBCErrGet(void);
// Sets the calling thread's error code (and clears its text); the platform's
// functions use it.
void KLIBCErrSet(int err);
// A text telling more about the last error, or "". For KLIB_ERR_CONFIG it
// names the file and the line, e.g.
// "/etc/kest/shares.conf:12: unknown key "invalid user" in [photo]".
const char* KLIBCErrTextGet(void);

// ---------------------------------------------------------------------------
// String lists.
typedef struct _tag_KLIBCSZLIST_ {
  int nAlloc;  // capacity
  int nItem;   // number of strings held
  char** ppszItem;
} KLIBCSZLIST, *PKLIBCSZLIST;

PKLIBCSZLIST KLIBCSzListAlloc(int capacity);
void KLIBCSzListFree(PKLIBCSZLIST list);
// The string at `index`, or NULL when out of range. Owned by the list.
const char* KLIBCSzListGet(PKLIBCSZLIST list, int index);
// Appends a copy of `item`; the list may be reallocated, hence the address.
int KLIBCSzListPush(PKLIBCSZLIST* plist, const char* item);

// ---------------------------------------------------------------------------
// Users.
enum {
  KEST_USER_FLAG_SYSTEM = 0x1,  // a system account (uid below 1000): no home folder
};

typedef struct _tag_KESTUSER_ {
  char* szName;  // login name; the first member on purpose
  uid_t nUID;
  gid_t nGID;
  unsigned int fFlags;  // KEST_USER_FLAG_*; handed to KESTServiceUserHomeIsEnabled
  char* szGecos;
  char* szShell;
} KESTUSER, *PKESTUSER;

// 0 on success with *ppUser set; negative with KLIB_ERR_USER_NOT_FOUND.
int KESTUserGet(const char* szUserName, PKESTUSER* ppUser);
int KESTUserGetByUID(uid_t uid, PKESTUSER* ppUser);
void KESTUserFree(PKESTUSER pUser);

// ---------------------------------------------------------------------------
// Groups.

// Name of the administrators group: the [global] "admin group" of
// /etc/kest/shares.conf, "administrators" when not configured (or when the
// file does not exist); "" while the file is malformed, so that nobody is an
// administrator until it is fixed (KLIBGroupIsAdminGroupMem then fails).
const char* KLIBGroupAdminGroupName(void);
// 1 when the user is a member (primary or supplementary) of the
// administrators group, 0 when not, negative on failure. `flags` is reserved
// (pass 0).
int KLIBGroupIsAdminGroupMem(const char* szUserName, int flags);
// The names of the groups the user belongs to (primary group first when
// `bWithPrimary`), or NULL on failure. Free with KLIBCSzListFree.
PKLIBCSZLIST KLIBGroupInfoListGet(const char* szUserName, BOOL bWithPrimary);

// ---------------------------------------------------------------------------
// Processes and files.
enum {
  // Reset signal dispositions and unblock every signal in the child, so that
  // work done there does not inherit the parent's signal set-up.
  KLIBC_FORK_RESET_SIGNALS = 0x1,
};
// Like fork(): 0 in the child, the child's pid in the parent, negative on
// failure.
pid_t KLIBCProcForkEx(int flags);
// 1 when the pid file names a live process, 0 when not (missing, empty or
// stale file), negative on failure to read it.
int KLIBCProcAliveByPidFile(const char* szPidFile);

typedef struct _tag_KESTCOPYARGS_ {
  int32_t blOverwrite;  // replace an existing destination
  int32_t blRemoveSrc;  // move: remove the source once copied
  int32_t reserved[6];
} KESTCOPYARGS;
// Copies a regular file (mode, times and, for root, owner kept) through a
// temporary beside the destination, or moves it when blRemoveSrc is set (a
// rename, or a copy and an unlink across file systems). Without blOverwrite
// an existing destination is an error. 0 on success, errno set on failure.
int KESTFileCopy(const char* szSrc, const char* szDst, const KESTCOPYARGS* pArgs);
// Greater than 0 when the directory is a mount point, 0 when not (also for a
// symbolic link or a file), negative on failure.
int KESTFSDirIsMntPoint(const char* szPath);

// ---------------------------------------------------------------------------
// Permissions: bits 4 (read), 2 (write), 1 (execute or traverse).

// The permission word of `szUserName` with the groups of `pGroupList` (group
// names as KLIBGroupInfoListGet gives them; NULL: the user's own groups) on
// `szPath` (symbolic links followed), from its POSIX ACL or its mode bits,
// with the kernel's algorithm; root gets what the kernel gives root. Only
// the path itself is judged, not the folders above it. -1 on failure (an
// unknown user, a missing path).
int KESTACLPermCalc(const char* szUserName, PKLIBCSZLIST pGroupList, const char* szPath,
                    int* pPerm);
// The same for the current effective identity, asked of the kernel.
int KESTACLPermGet(const char* szPath, int* pPerm);

// ---------------------------------------------------------------------------
// Shared folders.
enum {
  KEST_FTP_PRIV_DISABLE_LIST = 0x1,
  KEST_FTP_PRIV_DISABLE_MODIFY = 0x2,
  KEST_FTP_PRIV_DISABLE_DOWNLOAD = 0x4,
};

// Privilege values of KESTShareUserPrivCalc.
enum {
  KEST_SHARE_PRIV_RW = 1,  // read and write
  KEST_SHARE_PRIV_RO = 2,  // read only
  KEST_SHARE_PRIV_NA = 4,  // no access
};

typedef struct _tag_KESTSHARE_ {
  char* szName;                // share name
  char* szPath;                // the share's folder, e.g. /volume1/photo
  unsigned int fFTPPrivilege;  // KEST_FTP_PRIV_* bits
  int blHideUnreadable;
  int blReadOnly;
  int blEncrypted;
  int blRecycleBin;
  PKLIBCSZLIST pReadList;  // user names and @group names
  PKLIBCSZLIST pWriteList;
  PKLIBCSZLIST pInvalidUsers;
  // A share read from Samba's configuration follows Samba's rules: only the
  // users of pValidUsers (when it names anybody) have access, and the lists
  // change the access of those they name, nobody else's; everybody else has
  // nSambaDefaultPriv. 0 for a share of shares.conf.
  PKLIBCSZLIST pValidUsers;
  int nSambaDefaultPriv;
} KESTSHARE, *PKESTSHARE;

// Share records come from /etc/kest/shares.conf (docs/shares-conf.md). A
// missing or malformed file fails with KLIB_ERR_CONFIG; an unknown name with
// KLIB_ERR_SHARE_NOT_FOUND.
int KESTShareGet(const char* szShareName, PKESTSHARE* ppShare);
void KESTShareFree(PKESTSHARE pShare);

typedef struct _tag_KLIBSHAREENUM_ {
  // Answers non-zero to leave a share out.
  int (*pfnFilter)(const KESTSHARE* pShare);
  int flags;  // reserved, 0
} KLIBSHAREENUM;
// Appends the share names, in the file's order, to *plist; the number of
// names appended, negative on failure.
int KLIBShareEnum(PKLIBCSZLIST* plist, const KLIBSHAREENUM* pEnum);

int KLIBShareHideUnreadableGet(const KESTSHARE* pShare, int* pValue);
int KLIBShareIsEncryptedGet(const KESTSHARE* pShare, int* pValue);
int KLIBShareIsReadOnlyGet(const KESTSHARE* pShare, int* pValue);
int KLIBShareIsEncryptionGet(const KESTSHARE* pShare, int* pValue);
int KLIBShareRecycleStatusGet(const KESTSHARE* pShare, int* pValue);
// The stemming language of the share's index ("index language" of its
// section, else of [global]); "" when neither names one.
int KLIBShareIndexLanguageGet(const char* szShareName, char* szOut, size_t cbOut);
// One of KEST_SHARE_PRIV_*; the first rule that applies decides:
//   1. an unknown user, or one in "invalid users" (by name or @group): NA;
//   2. in "write list": RW, also on a read-only share;
//   3. in "read list": RO;
//   4. when both lists are empty, everybody: RO on a read-only share, else RW;
//   5. otherwise: NA.
int KESTShareUserPrivCalc(const char* szUserName, const KESTSHARE* pShare);
// 0 with the share's name and folder when `szPath` lies in a share (the
// share's folder itself included); negative with KLIB_ERR_NOT_IN_SHARE
// otherwise, also for a path with a ".." component. The path is compared as
// written: symbolic links are not resolved.
int KESTShareNamePathGet(const char* szPath, char* szShareName, size_t cbShareName,
                         char* szSharePath, size_t cbSharePath);
// Non-zero when the volume holding `szPath` has at least `cbNeeded` bytes
// free for unprivileged writers; 0 otherwise, with KLIB_ERR_NO_SPACE, or
// with KLIB_ERR_SYSTEM when the volume cannot be asked. `uid` is reserved
// (0).
int KESTQuotaIsEnough(uid_t uid, const char* szPath, uint64_t cbNeeded);

// ---------------------------------------------------------------------------
// The user home service.
// The service is on when [global] "user home" is yes and a share "homes"
// exists; a user's home is the folder named after the user in "homes".
// Non-zero when the home service applies to a user with these record flags
// (never to system accounts).
int KESTServiceUserHomeIsEnabled(unsigned int fUserFlags);
// The user's home folder, e.g. /volume1/homes/ann; KLIB_ERR_SERVICE_DISABLED
// when the service is off. The folder need not exist.
int KESTServiceHomePathGet(const char* szUserName, char* szPath, size_t cbPath);

// ---------------------------------------------------------------------------
// File-index paths of a share, from the share's folder (szPath) or name.
// For a share whose folder is <volume>/<folder> (e.g. /volume1/photo):
//   queue:     <volume>/@kestondri/queue/<folder>.queue
//   database:  <volume>/@kestondri/index/<folder>  (a Xapian database folder)
//   index id:  "fileindex_" + share name
// Negative with KLIB_ERR_BAD_PARAM for a malformed path or a short buffer.
int FILEIDXQueuePathCompose(const char* szSharePath, char* szOut, size_t cbOut);
int FILEIDXDBPathCompose(const char* szSharePath, char* szOut, size_t cbOut);
int FILEIDXGetIndexID(const char* szShareName, char* szOut, size_t cbOut);

#ifdef __cplusplus
}  // extern "C"

// Switches the process's effective uid and gid, its filesystem ids and its
// supplementary groups to those of `user_name`; the real and saved ids are
// left alone, so a process whose real and saved ids are root can switch again
// later. `with_groups` false keeps the supplementary groups. True when the
// effective uid and gid now are the user's.
bool ResetCredentialsByName(const std::string& user_name, bool with_groups = true);

// A user's identity as the name services give it.
struct KLIBUserIdentity {
  std::string name;
  uid_t uid = 0;
  gid_t gid = 0;              // the primary group
  std::vector<gid_t> groups;  // every group of the user, the primary one first
};
// Asks the name services, never a primed identity. False (KLIB_ERR_USER_NOT_FOUND)
// for an unknown user.
bool KLIBUserIdentityGet(const std::string& user_name, KLIBUserIdentity* identity);
// From now on this process answers every question about `identity.name` (its
// ids, its groups, the identity switch) from `identity` instead of the name
// services; one user at a time, an empty name forgets it. For a short-lived
// process that serves one user, handed an identity looked up shortly before
// by a process it trusts: group changes reach it only through a new one.
void KLIBUserIdentityPrime(const KLIBUserIdentity& identity);
#endif

#endif  // KEST_KLIB_H_
