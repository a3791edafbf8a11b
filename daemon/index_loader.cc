// kest_index_loader: builds (or refreshes) an index of a folder tree with the
// document layout of index_schema.h: plain-text files get their text, every
// other file and folder its metadata only. For tests and benchmarks, and as
// a reference for what the indexer writes.
//
//   kest_index_loader [--max-text BYTES] [--language LANG] SOURCE_DIR DB_PATH
#include <dirent.h>
#include <fcntl.h>
#include <getopt.h>
#include <sys/stat.h>
#include <unistd.h>
#include <xapian.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "index_schema.h"

namespace {

using kestondri::index::FileRecord;

struct Loader {
  Xapian::WritableDatabase db;
  std::string root;
  kestondri::index::Stemmer stemmer;
  size_t max_text = 16u << 20;
  size_t count = 0;
  size_t text_bytes = 0;
};

// The file's text when it looks like text (no NUL byte in its first 8 KiB),
// up to `max` bytes; empty otherwise.
std::string ReadText(const std::string& path, size_t max) {
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
  if (fd < 0) return "";
  std::string text;
  char buf[65536];
  while (text.size() < max) {
    ssize_t n = read(fd, buf, std::min(sizeof buf, max - text.size()));
    if (n <= 0) break;
    if (text.size() < 8192 && std::memchr(buf, '\0', static_cast<size_t>(n))) {
      text.clear();
      break;
    }
    text.append(buf, static_cast<size_t>(n));
  }
  close(fd);
  return text;
}

void Add(Loader& loader, const std::string& path, const std::string& name, const struct stat& st) {
  FileRecord r;
  r.path = path;
  r.name = name;
  r.folders = kestondri::index::FoldersBetween(loader.root, path);
  r.is_dir = S_ISDIR(st.st_mode);
  r.extension = kestondri::index::ExtensionOfName(name, r.is_dir);
  r.size = r.is_dir ? 0 : static_cast<uint64_t>(st.st_size);
  r.mtime = st.st_mtime;
  r.owner_uid = st.st_uid;
  r.identity = kestondri::index::FileIdentity(st);
  if (S_ISREG(st.st_mode)) r.text = ReadText(path, loader.max_text);
  loader.text_bytes += r.text.size();
  loader.db.replace_document(kestondri::index::UniqueTerm(path),
                             kestondri::index::MakeDocument(r, loader.stemmer));
  if (++loader.count % 5000 == 0) {
    loader.db.commit();
    std::fprintf(stderr, "%zu files\n", loader.count);
  }
}

void Walk(Loader& loader, const std::string& dir) {
  DIR* d = opendir(dir.c_str());
  if (!d) return;
  while (dirent* e = readdir(d)) {
    if (std::strcmp(e->d_name, ".") == 0 || std::strcmp(e->d_name, "..") == 0) continue;
    std::string path = dir + "/" + e->d_name;
    struct stat st;
    if (lstat(path.c_str(), &st) != 0) continue;
    if (!S_ISDIR(st.st_mode) && !S_ISREG(st.st_mode)) continue;
    Add(loader, path, e->d_name, st);
    if (S_ISDIR(st.st_mode)) Walk(loader, path);
  }
  closedir(d);
}

// Creates the folders above `path`, like mkdir -p of its parent.
void MakeParents(const std::string& path) {
  for (size_t pos = path.find('/', 1); pos != std::string::npos; pos = path.find('/', pos + 1)) {
    mkdir(path.substr(0, pos).c_str(), 0755);
  }
}

}  // namespace

int main(int argc, char** argv) {
  size_t max_text = 16u << 20;
  std::string language = kestondri::index::kDefaultLanguage;
  static const option opts[] = {{"max-text", required_argument, nullptr, 'm'},
                                {"language", required_argument, nullptr, 'l'},
                                {nullptr, 0, nullptr, 0}};
  const char* usage =
      "usage: kest_index_loader [--max-text BYTES] [--language LANG] SOURCE_DIR DB_PATH\n";
  int c;
  while ((c = getopt_long(argc, argv, "m:l:", opts, nullptr)) != -1) {
    if (c == 'm') {
      max_text = std::strtoull(optarg, nullptr, 10);
    } else if (c == 'l') {
      language = optarg;
    } else {
      std::fputs(usage, stderr);
      return 2;
    }
  }
  kestondri::index::Stemmer stemmer;
  if (argc - optind != 2 || !kestondri::index::Stemmer::Make(language, &stemmer)) {
    std::fputs(usage, stderr);
    return 2;
  }
  std::string root = argv[optind];
  while (root.size() > 1 && root.back() == '/') root.pop_back();
  MakeParents(argv[optind + 1]);
  try {
    Loader loader{Xapian::WritableDatabase(argv[optind + 1], Xapian::DB_CREATE_OR_OPEN), root,
                  stemmer};
    loader.max_text = max_text;
    loader.db.set_metadata(kestondri::index::kFormatKey, kestondri::index::kFormatVersion);
    loader.db.set_metadata(kestondri::index::kLanguageKey, stemmer.language());
    Walk(loader, root);
    loader.db.commit();
    std::printf("indexed %zu files, %zu bytes of text\n", loader.count, loader.text_bytes);
  } catch (const Xapian::Error& e) {
    std::fprintf(stderr, "kest_index_loader: %s\n", e.get_description().c_str());
    return 1;
  }
  return 0;
}
