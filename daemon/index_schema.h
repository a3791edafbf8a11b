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

#include "text_analysis.h"

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
// A criterion only: the folder given and everything below it.
constexpr const char kFieldInFolder[] = "KESTMDInFolder";

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

// The layout's version, in the database's metadata under kFormatKey. An
// index of another version (or none: the first layout) is rebuilt by the
// indexer, and the old one answers searches meanwhile. Version 2: folded
// words, stems, word beginnings, name words, folder words, CJK n-grams.
constexpr const char kFormatKey[] = "kestondri:format";
constexpr const char kFormatVersion[] = "2";
// The stemming language the index was built with (Stemmer::language()),
// in the database's metadata: queries stem their words the same way.
constexpr const char kLanguageKey[] = "kestondri:language";

// Term prefixes. Words are folded (text_analysis.h): accents and case do
// not count. Free-text prefixes carry positions (phrases work in them);
// the others are boolean filter terms.
constexpr const char kPrefixContent[] = "XC";  // words of the text content, positions
constexpr const char kPrefixName[] = "XN";     // words of the file name (NameWords), positions
constexpr const char kPrefixFolder[] = "XH";   // words of the names of the folders above it
// Stems of the words of a field, "Z" + the field's prefix, only where the
// stem differs from the word: a stem is matched as that stem or as a word.
constexpr const char kStemMark[] = "Z";
// The beginnings of a field's words longer than that, from kMinBeginning
// up to MaxBeginning(field) characters: "XG" + the field's letter ("XGC",
// "XGN", "XGH"). A short prefix query is then one term, whatever the
// number of words it begins. Text has many words: there only the first 3
// characters are worth their room in the index.
constexpr const char kPrefixBeginning[] = "XG";
constexpr size_t kMinBeginning = 3;
size_t MaxBeginning(const std::string& field_prefix);
// Words as they stand, before folding, where folding changed them: an
// accented query word ranks the files that have it accented first.
constexpr const char kPrefixAccentedContent[] = "XAC";
constexpr const char kPrefixAccentedName[] = "XAN";
constexpr const char kPrefixExtension[] = "XE";  // lower-case extension, no dot
constexpr const char kPrefixType[] = "XT";       // file type: document, photo, ...
constexpr const char kPrefixIsDir[] = "XD";      // "XD1" folders, "XD0" files
constexpr const char kPrefixOwner[] = "XO";      // decimal owner uid
constexpr const char kPrefixExactName[] = "XF";  // the whole file name, as it is
// One per document: the path, as it is (replace_document, exact path
// criteria).
constexpr const char kPrefixUnique[] = "Q";

// The beginning-term prefix of a field prefix ("XC" gives "XGC").
std::string BeginningPrefix(const std::string& field_prefix);

// The document data holds the extracted text, cut (on a UTF-8 boundary) to
// this many bytes: what highlighting can show. Every word of the whole text
// is indexed all the same.
constexpr size_t kMaxStoredText = 256u << 10;
// Positions are kept for words in this much of the text (phrases match
// there); words further on are indexed without them. Positions are most
// of an index's size, and a long generated file holds many words once.
constexpr size_t kMaxPositionalText = 128u << 10;

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
  // The folders between the indexed tree's root and the file ("a/b" for
  // <root>/a/b/name): their names' words find the file too.
  std::string folders;
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

// The part of `path` between `root` and its last component ("" when the
// file lies right in `root`, or not below it).
std::string FoldersBetween(const std::string& root, const std::string& path);

// Builds the document for `record`, stemming with `stemmer` (the index's
// language). Thread-safe given a stemmer of the calling thread.
Xapian::Document MakeDocument(const FileRecord& record, const Stemmer& stemmer);
// The same in kDefaultLanguage.
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
