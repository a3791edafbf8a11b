// A Beast body that sends `length` bytes of an open file from `offset`,
// read with pread in pieces, so that a Range answer or a large download
// never holds the whole file in memory. The body owns the descriptor.
#ifndef KESTONDRI_HOST_SERVER_FD_RANGE_BODY_H_
#define KESTONDRI_HOST_SERVER_FD_RANGE_BODY_H_

#include <unistd.h>

#include <boost/asio/buffer.hpp>
#include <boost/beast/http/error.hpp>
#include <boost/beast/http/message.hpp>
#include <boost/optional.hpp>
#include <cerrno>
#include <cstdint>
#include <memory>
#include <utility>

#include "server/worker_process.h"

namespace kestondri {
namespace host {

struct FdRangeBody {
  struct value_type {
    std::shared_ptr<UniqueFd> fd;
    uint64_t offset = 0;
    uint64_t length = 0;
  };

  static std::uint64_t size(const value_type& body) { return body.length; }

  class writer {
   public:
    using const_buffers_type = boost::asio::const_buffer;

    template <bool isRequest, class Fields>
    writer(boost::beast::http::header<isRequest, Fields>&, const value_type& body) : body_(body) {}

    void init(boost::beast::error_code& ec) {
      position_ = body_.offset;
      remaining_ = body_.length;
      ec = {};
    }

    boost::optional<std::pair<const_buffers_type, bool>> get(boost::beast::error_code& ec) {
      if (remaining_ == 0) {
        ec = {};
        return boost::none;
      }
      const size_t want =
          remaining_ < sizeof(buffer_) ? static_cast<size_t>(remaining_) : sizeof(buffer_);
      ssize_t n;
      do {
        n = pread(body_.fd->get(), buffer_, want, static_cast<off_t>(position_));
      } while (n < 0 && errno == EINTR);
      if (n <= 0) {
        // A file cut short while it is sent: the client sees the connection
        // close before Content-Length bytes, never bytes of another file.
        ec = n == 0 ? boost::beast::http::error::short_read
                    : boost::beast::error_code(errno, boost::beast::system_category());
        return boost::none;
      }
      position_ += static_cast<uint64_t>(n);
      remaining_ -= static_cast<uint64_t>(n);
      ec = {};
      return {{const_buffers_type(buffer_, static_cast<size_t>(n)), remaining_ > 0}};
    }

   private:
    const value_type& body_;
    uint64_t position_ = 0;
    uint64_t remaining_ = 0;
    char buffer_[65536];
  };
};

}  // namespace host
}  // namespace kestondri

#endif  // KESTONDRI_HOST_SERVER_FD_RANGE_BODY_H_
