// A request to the search daemon, from root or from a local user, answered
// by the daemon's command handler against a small real index built once in a
// temporary folder; every reply message is framed as it would be sent.
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include "command_handler.h"
#include "index_schema.h"
#include "reply_frame.h"

namespace {

using namespace kestondri::daemon;

struct Index {
  std::string dir;
  StaticIndexResolver resolver;
  MissingIndexLog missing;
  std::unique_ptr<CommandHandler> handler;
  std::unique_ptr<IndexCache> cache;
};
Index* fixture;

class FrameSink : public ReplySink {
 public:
  bool Send(const Json::Value& message) override { return AppendFrame(message, &wire); }
  std::string wire;
};

// Files of two owners, one of them readable by root alone.
void Build(Index* idx) {
  const std::string share = idx->dir + "/share";
  mkdir(share.c_str(), 0755);
  Xapian::WritableDatabase db(idx->dir + "/db", Xapian::DB_CREATE_OR_OPEN);
  const struct {
    const char* name;
    uint32_t owner;
    mode_t mode;
    const char* text;
  } files[] = {{"report.txt", 0, 0644, "quarterly report draft"},
               {"secret.pdf", 0, 0600, "secret salary report"},
               {"photo.jpg", 2001, 0644, ""},
               {"notes.md", 2001, 0640, "meeting notes: report due friday"}};
  for (const auto& f : files) {
    kestondri::index::FileRecord record;
    record.path = share + "/" + f.name;
    record.name = f.name;
    record.extension = kestondri::index::ExtensionOfName(f.name, false);
    record.owner_uid = f.owner;
    record.text = f.text;
    record.size = record.text.size();
    std::ofstream(record.path) << f.text;
    if (chown(record.path.c_str(), f.owner, f.owner) != 0 ||
        chmod(record.path.c_str(), f.mode) != 0)
      abort();
    db.replace_document(kestondri::index::UniqueTerm(record.path),
                        kestondri::index::MakeDocument(record));
  }
  db.commit();
  idx->resolver.Add("fileindex_share", {idx->dir + "/db", share});
  idx->resolver.Add("fileindex_gone", {idx->dir + "/nothing", idx->dir + "/nothing"});
}

void RemoveIndex() { std::filesystem::remove_all(fixture->dir); }

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  char templ[] = "/tmp/kest-daemon-fuzz-XXXXXX";
  if (!mkdtemp(templ)) abort();
  fixture = new Index;
  fixture->dir = templ;
  Build(fixture);
  fixture->handler = std::make_unique<CommandHandler>(fixture->resolver, fixture->missing);
  fixture->cache = std::make_unique<IndexCache>(fixture->resolver, fixture->missing);
  atexit(RemoveIndex);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  // The first byte picks the peer: root, the owner of some files, a stranger.
  static const Peer kPeers[] = {{1, 0, 0}, {1, 2001, 2001}, {1, 2002, 2002}};
  const Peer& peer = kPeers[data[0] % 3];
  FrameSink sink;
  fixture->handler->Handle(std::string(reinterpret_cast<const char*>(data) + 1, size - 1), peer,
                           *fixture->cache, sink);
  return 0;
}
