// The layout of a file-index document, shared by whatever writes an index
// (the indexer, the bench loader, the tests) and by kestelasticd, which reads
// it. docs/index-format.md describes the same layout for people; the two
// must change together, and an index written with an older layout must be
// rebuilt.
//
// Everything here is immutable after static initialisation and safe to use
// from any thread.
#ifndef KESTONDRI_DAEMON_INDEX_SCHEMA_H_
#define KESTONDRI_DAEMON_INDEX_SCHEMA_H_

#include <sys/stat.h>
#include <xapian.h>

#include <cstdint>
#include <string>
#include <vector>

namespace kestondri {
namespace index {

// Field names as they travel in requests and hits.
constexpr const char kFieldPath[] = "KESTMDPath";
constexpr const char kFieldName[] = "KESTMDFSName";
constexpr const char kFieldExtension[] = "KESTMDExtension";
constexpr const char kFieldIsDir[] = "KESTMDIsDir";
constexpr const char kFieldSize[] = "KESTMDFSSize";
constexpr const char kFieldMTime[] = "KESTMDMTime";
constexpr const char kFieldContent[] = "KESTMDTextContent";
constexpr const char kFieldOwner[] = "KESTMDOwnerUserID";

// Value slots. Path, name, extension and owner hold their text (the owner as
// a decimal uid); is-dir holds "1" or "0"; size and mtime hold
// Xapian::sortable_serialise of the number, so that ranges are value ranges.
enum Slot : Xapian::valueno {
  kSlotPath = 0,
  kSlotName = 1,
  kSlotExtension = 2,
  kSlotIsDir = 3,
  kSlotSize = 4,
  kSlotMTime = 5,
  kSlotOwner = 6,
  // When the indexer wrote the document: microseconds since the epoch,
  // sortable_serialise. Never read back with hits; a folder's reindex uses
  // it to go on where it stopped.
  kSlotWritten = 7,
  // Which file the document was made from: FileIdentity() of the lstat the
  // indexer took before reading it. Never read back with hits; a filtered
  // search shows a hit only while its path still names that very file, so
  // text indexed from one file never reaches the reader of another that
  // took its name.
  kSlotIdentity = 8,
};

// Term prefixes. Free-text prefixes carry positions (phrases work in them);
// the others are boolean filter terms.
constexpr const char kPrefixContent[] = "XC";    // words of the text content
constexpr const char kPrefixName[] = "XN";       // words of the file name
constexpr const char kPrefixExtension[] = "XE";  // lower-case extension, no dot
constexpr const char kPrefixType[] = "XT";       // file type: document, photo, ...
constexpr const char kPrefixIsDir[] = "XD";      // "XD1" folders, "XD0" files
constexpr const char kPrefixOwner[] = "XO";      // decimal owner uid
constexpr const char kPrefixExactName[] = "XF";  // the whole file name, as it is
constexpr const char kPrefixExactPath[] = "XP";  // the whole path, as it is
constexpr const char kPrefixUnique[] = "Q";      // one per document: the path

// The document data holds the extracted text, cut (on a UTF-8 boundary) to
// this many bytes: what highlighting can show. Every word of the whole text
// is indexed all the same.
constexpr size_t kMaxStoredText = 256u << 10;

// File types a search can select, and the folder pseudo-type.
constexpr const char kTypeAll[] = "all";
constexpr const char kTypeFolder[] = "folder";
constexpr const char kTypeDocument[] = "document";
constexpr const char kTypePhoto[] = "photo";
constexpr const char kTypeVideo[] = "video";
constexpr const char kTypeAudio[] = "audio";
constexpr const char kTypeOther[] = "other";

// The type of a file (not a folder) from its extension, case-insensitive,
// without the dot: one of document, photo, video, audio, other.
const char* FileTypeOfExtension(const std::string& extension);
// The extensions (lower case) that make a file of `type`; empty for "other".
const std::vector<std::string>& ExtensionsOfType(const std::string& type);
// True for the type names above.
bool IsKnownType(const std::string& type);

// A boolean term for `prefix` + `value` that stays under Xapian's term length
// limit: long values are replaced by a digest of themselves.
std::string ExactTerm(const char* prefix, const std::string& value);

// What one document describes. `text` is the extracted text (may be empty).
struct FileRecord {
  std::string path;  // absolute path on the server
  std::string name;  // last path component
  std::string extension;
  bool is_dir = false;
  uint64_t size = 0;
  int64_t mtime = 0;  // seconds since the epoch
  uint32_t owner_uid = 0;
  std::string identity;  // FileIdentity(); empty: unverified (hidden from filtered searches)
  std::string text;
};

// "<device>:<inode>:<ctime seconds>.<ctime nanoseconds>", decimal. The
// change time makes a reused inode number a different identity, and nobody
// can set it back: every rename, link, chmod or write of the file moves it.
std::string FileIdentity(const struct stat& st);

// The extension of a file name as the index records it: the text after the
// last dot, lower-cased; empty for folders, dot-files and names without one.
std::string ExtensionOfName(const std::string& name, bool is_dir);

// Builds the document for `record`. Thread-safe (no shared state).
Xapian::Document MakeDocument(const FileRecord& record);
// The unique term to pass to WritableDatabase::replace_document.
std::string UniqueTerm(const std::string& path);

// Reads a text value slot; the empty string when absent.
std::string SlotText(const Xapian::Document& doc, Slot slot);
// Reads a numeric value slot; 0 when absent.
double SlotNumber(const Xapian::Document& doc, Slot slot);

}  // namespace index
}  // namespace kestondri

#endif  // KESTONDRI_DAEMON_INDEX_SCHEMA_H_
