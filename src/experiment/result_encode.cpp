// The ".kvres" encoder: a Result to bytes or to a file (written atomically).
#include "korvalin_client/experiment/result.hpp"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <deque>
#include <iterator>
#include <limits>
#include <optional>
#include <set>
#include <type_traits>

#include "korvalin_client/utils/errors.hpp"
#include "korvalin_client/utils/files.hpp"
#include "result_format.hpp"

namespace korvalin_client::experiment {

using namespace kvres;

namespace {

class Sink {
 public:
  virtual ~Sink() = default;
  virtual void write(const void* data, std::size_t size) = 0;
};

class FileSink final : public Sink {
 public:
  explicit FileSink(utils::AtomicFile& file) : file_(file) {}
  void write(const void* data, std::size_t size) override { file_.write(data, size); }

 private:
  utils::AtomicFile& file_;
};

class BytesSink final : public Sink {
 public:
  explicit BytesSink(Bytes& out) : out_(out) {}
  void write(const void* data, std::size_t size) override {
    const auto* p = static_cast<const std::uint8_t*>(data);
    out_.insert(out_.end(), p, p + size);
  }

 private:
  Bytes& out_;
};

// Gathers small pieces into one buffer; large pieces go to the sink directly.
class Staging {
 public:
  explicit Staging(Sink& sink) : sink_(sink) { buf_.reserve(kCapacity); }

  void put(const void* data, std::size_t size) {
    if (buf_.size() + size > kCapacity) flush();
    if (size >= kCapacity) {
      sink_.write(data, size);
      written_ += size;
      return;
    }
    const auto* p = static_cast<const std::uint8_t*>(data);
    buf_.insert(buf_.end(), p, p + size);
  }

  void put_u64(std::uint64_t v) {
    v = to_le64(v);
    put(&v, sizeof v);
  }

  // Numbers as little-endian 8-byte words (int64, float64, complex as two float64).
  void put_words(const void* data, std::size_t bytes) {
    if constexpr (kLittleEndian) {
      put(data, bytes);
    } else {
      const auto* p = static_cast<const std::uint8_t*>(data);
      for (std::size_t i = 0; i < bytes; i += 8) {
        std::uint64_t w;
        std::memcpy(&w, p + i, 8);
        put_u64(w);
      }
    }
  }

  // Zero bytes up to `offset` from the start.
  void pad_to(std::uint64_t offset) {
    static constexpr std::array<std::uint8_t, 8> zeros{};
    while (position() < offset) put(zeros.data(), std::min<std::uint64_t>(8, offset - position()));
  }

  std::uint64_t position() const { return written_ + buf_.size(); }

  void flush() {
    if (!buf_.empty()) sink_.write(buf_.data(), buf_.size());
    written_ += buf_.size();
    buf_.clear();
  }

 private:
  static constexpr std::size_t kCapacity = std::size_t{1} << 20;

  Sink& sink_;
  std::vector<std::uint8_t> buf_;
  std::uint64_t written_ = 0;
};

}  // namespace

// Writing of the file format; a friend of Result.
struct ResultEncoder {
  struct Blob {
    std::uint64_t offset = 0;
    std::uint64_t length = 0;
  };

  struct Layout {
    Bytes header;
    std::uint64_t data_start = 0;  // from the start of the file
    Blob segments;
    std::vector<Blob> columns;
    std::uint64_t total = 0;  // bytes of the whole file
  };

  static std::uint64_t text_bytes(const Column& c) {
    std::uint64_t n = 0;
    for (std::size_t b = 0; b < c.block_count(); ++b) {
      for (const auto& s : c.block<std::string>(b)) n += s.size();
    }
    return n;
  }

  // `name` names the file (or the bytes) in errors.
  static Layout plan(const Result& r, std::string_view name) {
    Layout l;
    l.segments = {0, 16 * static_cast<std::uint64_t>(r.segments_.size())};
    std::uint64_t pos = l.segments.length;
    Value columns = Value::array();
    for (const auto& [name, column] : r.columns_) {
      const std::uint64_t n = column.size();
      const std::uint64_t length = column.dtype() == DType::Text ? 8 * (n + 1) + text_bytes(column)
                                                                 : n * item_width(column.dtype());
      pos = align8(pos);
      l.columns.push_back({pos, length});
      pos += length;
      columns.push_back({{"name", name},
                         {"dtype", dtype_name(column.dtype())},
                         {"offset", pos - length},
                         {"length", length}});
    }
    const Value header = {
        {"item_count", static_cast<std::uint64_t>(r.size_)},
        {"segments", {{"offset", l.segments.offset}, {"length", l.segments.length}}},
        {"columns", std::move(columns)}};
    l.header = Value::to_msgpack(header);
    if (l.header.size() > kMaxHeaderBytes) {
      throw RuntimeError(std::string(name) + ": the result has too many columns to store, its " +
                         "header would take " + std::to_string(l.header.size()) + " bytes");
    }
    l.data_start = align8(kPreambleBytes + l.header.size());
    l.total = l.data_start + pos;
    return l;
  }

  static void write(const Result& r, const Layout& l, Sink& sink) {
    Staging out(sink);
    out.put(kMagic.data(), kMagic.size());
    const std::uint32_t version = to_le32(kVersion);
    out.put(&version, sizeof version);
    out.put_u64(l.header.size());
    out.put(l.header.data(), l.header.size());
    out.pad_to(l.data_start);
    for (const auto& [start, count] : r.segments_) {
      out.put_u64(static_cast<std::uint64_t>(start));
      out.put_u64(static_cast<std::uint64_t>(count));
    }
    for (std::size_t i = 0; i < r.columns_.size(); ++i) {
      const Column& c = r.columns_[i].second;
      out.pad_to(l.data_start + l.columns[i].offset);
      std::visit(
          [&](const auto& blocks) {
            using T = typename std::decay_t<decltype(blocks)>::value_type::element_type::value_type;
            if constexpr (std::is_same_v<T, std::string>) {
              std::uint64_t offset = 0;
              out.put_u64(0);
              for (const auto& b : blocks) {
                for (const auto& s : *b) out.put_u64(offset += s.size());
              }
              for (const auto& b : blocks) {
                for (const auto& s : *b) out.put(s.data(), s.size());
              }
            } else {
              for (const auto& b : blocks) out.put_words(b->data(), b->size() * sizeof(T));
            }
          },
          c.blocks_);
    }
    out.flush();
  }
};

void Result::save_to_file(const std::string& path) const {
  const ResultEncoder::Layout layout = ResultEncoder::plan(*this, path);
  utils::AtomicFile file(path);
  FileSink sink(file);
  ResultEncoder::write(*this, layout, sink);
  file.commit();
}

Bytes Result::to_bytes() const {
  const ResultEncoder::Layout layout = ResultEncoder::plan(*this, "<bytes>");
  Bytes out;
  out.reserve(static_cast<std::size_t>(layout.total));
  BytesSink sink(out);
  ResultEncoder::write(*this, layout, sink);
  return out;
}

}  // namespace korvalin_client::experiment
