// The messages between the extractor and its worker process over a local
// stream socket. Each message is a 4-byte little-endian length and a body;
// a request carries the file's open descriptor (SCM_RIGHTS), so the worker
// needs no right to open anything and runs as an unprivileged user.
//
// Functions are thread-compatible: one socket, one caller at a time.
#ifndef KESTONDRI_INDEXER_EXTRACT_WORKER_PROTOCOL_H_
#define KESTONDRI_INDEXER_EXTRACT_WORKER_PROTOCOL_H_

#include <string>

#include "extract/extract_types.h"
#include "extract/format_table.h"

namespace kestondri {
namespace indexer {

struct WorkerRequest {
  DocFormat format = DocFormat::kNone;
  ExtractLimits limits;
};

// Sends the request and a copy of `file_fd`. False when the worker is gone.
bool SendRequest(int sock, const WorkerRequest& request, int file_fd);

// Blocks for the next request. Returns 1 with `*file_fd` open (the caller
// closes it), 0 at a clean end of the stream, -1 on a malformed message.
int ReceiveRequest(int sock, WorkerRequest* request, int* file_fd);

// Blocks until the whole result is written. False when the peer is gone.
bool SendResult(int sock, const ExtractResult& result);

enum class ReceiveOutcome { kOk, kTimeout, kClosed, kMalformed };

// Waits until `deadline_ms` (CLOCK_MONOTONIC milliseconds) for a result of
// at most `max_bytes` of body. The text of a result is checked to be UTF-8.
ReceiveOutcome ReceiveResult(int sock, long long deadline_ms, size_t max_bytes,
                             ExtractResult* result);

// CLOCK_MONOTONIC in milliseconds.
long long MonotonicMs();

}  // namespace indexer
}  // namespace kestondri

#endif  // KESTONDRI_INDEXER_EXTRACT_WORKER_PROTOCOL_H_
