// The ".kvres" decoder: bytes or a file back to a Result, read defensively: a hostile or
// damaged file is an error naming it, never a crash or an allocation beyond its size.
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
#include "../utils/huge_pages.hpp"
#include "result_format.hpp"

namespace korvalin_client::experiment {

using namespace kvres;

// Reading of the file format; a friend of Result.
struct ResultDecoder {
  class Source {
   public:
    explicit Source(std::string name) : name_(std::move(name)) {}
    virtual ~Source() = default;
    virtual std::uint64_t size() const = 0;
    // Reads exactly `n` bytes at `offset` (within size()).
    virtual void read(std::uint64_t offset, void* dst, std::size_t n) = 0;

    [[noreturn]] void fail(const std::string& what) const {
      throw RuntimeError(name_ + ": " + what);
    }

   private:
    std::string name_;
  };

  class MemorySource final : public Source {
   public:
    MemorySource(std::span<const std::uint8_t> data, std::string name)
        : Source(std::move(name)), data_(data) {}
    std::uint64_t size() const override { return data_.size(); }
    void read(std::uint64_t offset, void* dst, std::size_t n) override {
      if (n > 0) std::memcpy(dst, data_.data() + offset, n);
    }

   private:
    std::span<const std::uint8_t> data_;
  };

  class FileSource final : public Source {
   public:
    explicit FileSource(const std::string& path) : Source(path) {
      // O_NONBLOCK: opening a FIFO must not wait for a writer; it is refused below.
      fd_.fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
      if (fd_.fd < 0) {
        const int err = errno;
        throw RuntimeError("cannot read " + path + ": " + std::strerror(err));
      }
      struct stat st {};
      if (::fstat(fd_.fd, &st) != 0) {
        const int err = errno;
        fail(std::string("cannot read: ") + std::strerror(err));
      }
      if (!S_ISREG(st.st_mode)) fail("not a regular file");
      size_ = static_cast<std::uint64_t>(st.st_size);
    }

    std::uint64_t size() const override { return size_; }

    void read(std::uint64_t offset, void* dst, std::size_t n) override {
      auto* p = static_cast<std::uint8_t*>(dst);
      while (n > 0) {
        const std::size_t step = std::min(n, std::size_t{1} << 30);
        const ssize_t got = ::pread(fd_.fd, p, step, static_cast<off_t>(offset));
        if (got < 0) {
          if (errno == EINTR) continue;
          const int err = errno;
          fail(std::string("cannot read: ") + std::strerror(err));
        }
        if (got == 0) fail("truncated: the file got shorter while it was read");
        p += got;
        offset += static_cast<std::uint64_t>(got);
        n -= static_cast<std::size_t>(got);
      }
    }

   private:
    // Closes the descriptor also when the constructor above throws.
    struct Fd {
      int fd = -1;
      Fd() = default;
      Fd(const Fd&) = delete;
      Fd& operator=(const Fd&) = delete;
      ~Fd() {
        if (fd >= 0) ::close(fd);
      }
    };

    Fd fd_;
    std::uint64_t size_ = 0;
  };

  struct ColumnEntry {
    std::optional<std::string> name;
    std::optional<DType> dtype;
    std::optional<std::uint64_t> offset;
    std::optional<std::uint64_t> length;
  };

  struct SegmentsEntry {
    std::optional<std::uint64_t> offset;
    std::optional<std::uint64_t> length;
  };

  struct Header {
    std::optional<std::uint64_t> item_count;
    std::optional<SegmentsEntry> segments;
    bool has_columns = false;
    // A deque: no single allocation grows with the number of columns.
    std::deque<ColumnEntry> columns;
  };

  // Reads the header straight from MessagePack events into a Header, refusing anything of the
  // wrong shape as soon as it is seen. Keys it does not know are skipped. Nesting is limited,
  // since the MessagePack parser recurses once per level.
  class HeaderReader final : public nlohmann::json_sax<Value> {
   public:
    explicit HeaderReader(Header& header) : h_(header) {}

    const std::string& error() const { return error_; }

    bool null() override { return value(Kind::Other); }
    bool boolean(bool) override { return value(Kind::Other); }
    bool number_integer(number_integer_t v) override {
      return v >= 0 ? value(Kind::Count, static_cast<std::uint64_t>(v)) : value(Kind::Other);
    }
    bool number_unsigned(number_unsigned_t v) override { return value(Kind::Count, v); }
    bool number_float(number_float_t, const string_t&) override { return value(Kind::Other); }
    bool string(string_t& s) override { return value(Kind::Text, 0, &s); }
    bool binary(binary_t&) override { return value(Kind::Other); }
    bool start_object(std::size_t) override { return value(Kind::Mapping); }
    bool start_array(std::size_t) override { return value(Kind::List); }
    bool key(string_t& k) override {
      key_ = std::move(k);
      return true;
    }
    bool end_object() override { return close(); }
    bool end_array() override { return close(); }
    bool parse_error(std::size_t position, const std::string&,
                     const nlohmann::detail::exception& ex) override {
      error_ = "malformed at byte " + std::to_string(position) + " (" + ex.what() + ")";
      return false;
    }

   private:
    enum class Kind { Other, Count, Text, Mapping, List };
    enum class Where { Root, Segments, Columns, Column, Skip };

    bool fail(std::string what) {
      error_ = std::move(what);
      return false;
    }

    bool open(Where w) {
      if (stack_.size() >= kMaxHeaderDepth) return fail("nested too deeply");
      stack_.push_back(w);
      return true;
    }

    bool close() {
      const Where w = stack_.back();
      stack_.pop_back();
      if (w != Where::Column) return true;
      const ColumnEntry& c = h_.columns.back();
      const std::string at = "column #" + std::to_string(h_.columns.size() - 1);
      if (!c.name) return fail(at + " has no \"name\"");
      if (!c.dtype) return fail(at + " has no \"dtype\"");
      if (!c.offset || !c.length) return fail(at + " has no \"offset\" or \"length\"");
      return true;
    }

    // A value the reader has no use for; containers are skipped whole.
    bool skip(Kind kind) {
      return kind == Kind::Mapping || kind == Kind::List ? open(Where::Skip) : true;
    }

    bool count(std::optional<std::uint64_t>& field, Kind kind, std::uint64_t v) {
      if (field) return fail("duplicate key " + in_quotes(key_));
      if (kind != Kind::Count) return fail(in_quotes(key_) + " is not a non-negative integer");
      field = v;
      return true;
    }

    bool value(Kind kind, std::uint64_t v = 0, string_t* text = nullptr) {
      if (stack_.empty()) {
        if (kind != Kind::Mapping) return fail("the header is not a mapping");
        return open(Where::Root);
      }
      switch (stack_.back()) {
        case Where::Skip:
          return skip(kind);
        case Where::Root:
          if (key_ == "item_count") return count(h_.item_count, kind, v);
          if (key_ == "segments") {
            if (h_.segments) return fail("duplicate key \"segments\"");
            if (kind != Kind::Mapping) return fail("\"segments\" is not a mapping");
            h_.segments.emplace();
            return open(Where::Segments);
          }
          if (key_ == "columns") {
            if (h_.has_columns) return fail("duplicate key \"columns\"");
            if (kind != Kind::List) return fail("\"columns\" is not a list");
            h_.has_columns = true;
            return open(Where::Columns);
          }
          return skip(kind);
        case Where::Segments:
          if (key_ == "offset") return count(h_.segments->offset, kind, v);
          if (key_ == "length") return count(h_.segments->length, kind, v);
          return skip(kind);
        case Where::Columns:
          if (kind != Kind::Mapping) return fail("a column entry is not a mapping");
          h_.columns.emplace_back();
          return open(Where::Column);
        case Where::Column: {
          ColumnEntry& c = h_.columns.back();
          if (key_ == "offset") return count(c.offset, kind, v);
          if (key_ == "length") return count(c.length, kind, v);
          if (key_ == "name") {
            if (c.name) return fail("duplicate key \"name\"");
            if (kind != Kind::Text) return fail("a column name is not text");
            c.name = std::move(*text);
            return true;
          }
          if (key_ == "dtype") {
            if (c.dtype) return fail("duplicate key \"dtype\"");
            if (kind != Kind::Text) return fail("a column dtype is not text");
            c.dtype = parse_dtype(*text);
            if (!c.dtype) return fail("unknown dtype " + in_quotes(*text));
            return true;
          }
          return skip(kind);
        }
      }
      return fail("unexpected value");
    }

    Header& h_;
    std::vector<Where> stack_;
    std::string key_;
    std::string error_;
  };

  static Header read_header(Source& src, std::uint64_t length) {
    Bytes bytes(static_cast<std::size_t>(length));
    src.read(kPreambleBytes, bytes.data(), bytes.size());
    Header h;
    HeaderReader reader(h);
    bool ok = false;
    try {
      ok = Value::sax_parse(bytes.begin(), bytes.end(), &reader, Value::input_format_t::msgpack);
    } catch (const nlohmann::json::exception& e) {
      src.fail(std::string("bad header: ") + e.what());
    }
    if (!ok) src.fail("bad header: " + (reader.error().empty() ? "malformed" : reader.error()));
    return h;
  }

  // Reads and checks the segment table: increasing, non-overlapping runs of ids >= 0 that
  // hold `items` ids in all. Adjacent runs are merged.
  static Segments read_segments(Source& src, std::uint64_t at, std::uint64_t length,
                                std::uint64_t items) {
    std::vector<std::int64_t> words(static_cast<std::size_t>(length / 8));
    src.read(at, words.data(), static_cast<std::size_t>(length));
    words_from_le(words.data(), static_cast<std::size_t>(length));
    Segments out;
    std::uint64_t total = 0;
    for (std::size_t i = 0; i + 1 < words.size(); i += 2) {
      const std::int64_t start = words[i];
      const std::int64_t count = words[i + 1];
      const std::string at_run = "segment #" + std::to_string(i / 2);
      if (start < 0 || count < 1) {
        src.fail(at_run + " is invalid (" + std::to_string(start) + ", " + std::to_string(count) +
                 ")");
      }
      if (count - 1 > std::numeric_limits<std::int64_t>::max() - start) {
        src.fail(at_run + " runs past the largest item id");
      }
      if (!out.empty() && start <= out.back().first + (out.back().second - 1)) {
        src.fail(at_run + " overlaps or precedes the one before it");
      }
      if (add_overflows(total, static_cast<std::uint64_t>(count), total) || total > items) {
        src.fail("the segments hold more than the " + std::to_string(items) + " items");
      }
      if (!out.empty() && out.back().first + out.back().second == start) {
        out.back().second += count;
      } else {
        out.emplace_back(start, count);
      }
    }
    if (total != items) {
      src.fail("the segments hold " + std::to_string(total) + " items, the header says " +
               std::to_string(items));
    }
    return out;
  }

  template <class T>
  static Column read_numbers(Source& src, std::uint64_t at, std::uint64_t items) {
    std::vector<T> values;
    values.reserve(static_cast<std::size_t>(items));
    utils::advise_huge_pages(values.data(), values.capacity() * sizeof(T));
    values.resize(static_cast<std::size_t>(items));
    const std::size_t bytes = values.size() * sizeof(T);
    src.read(at, values.data(), bytes);
    words_from_le(values.data(), bytes);
    return Column(std::move(values));
  }

  static Column read_text(Source& src, const std::string& name, std::uint64_t at,
                          std::uint64_t length, std::uint64_t items) {
    Bytes blob(static_cast<std::size_t>(length));
    src.read(at, blob.data(), blob.size());
    const std::size_t table = static_cast<std::size_t>((items + 1) * 8);
    const std::uint64_t chars = length - table;
    const std::uint8_t* text = blob.data() + table;
    std::uint64_t prev = load_le64(blob.data());
    if (prev != 0) src.fail("column " + in_quotes(name) + ": text offsets do not start at 0");
    std::vector<std::string> values;
    values.reserve(static_cast<std::size_t>(items));
    for (std::size_t i = 1; i <= items; ++i) {
      const std::uint64_t end = load_le64(blob.data() + 8 * i);
      if (end < prev || end > chars) {
        src.fail("column " + in_quotes(name) + ": text offset #" + std::to_string(i) +
                 " is out of order or out of range");
      }
      values.emplace_back(reinterpret_cast<const char*>(text + prev),
                          static_cast<std::size_t>(end - prev));
      prev = end;
    }
    if (prev != chars) {
      src.fail("column " + in_quotes(name) + ": " + std::to_string(chars - prev) +
               " text bytes follow the last item");
    }
    return Column(std::move(values));
  }

  static Result decode(Source& src) {
    const std::uint64_t size = src.size();
    std::array<std::uint8_t, kPreambleBytes> pre{};
    const std::size_t got = static_cast<std::size_t>(std::min<std::uint64_t>(size, pre.size()));
    src.read(0, pre.data(), got);
    if (std::memcmp(pre.data(), kMagic.data(), std::min(got, kMagic.size())) != 0) {
      src.fail("not a result file (bad magic)");
    }
    if (got < kPreambleBytes) {
      src.fail("truncated: " + std::to_string(size) + " bytes, less than the " +
               std::to_string(kPreambleBytes) + "-byte preamble");
    }
    const std::uint32_t version = load_le32(pre.data() + 8);
    if (version > kVersion) {
      src.fail("format version " + std::to_string(version) + " is newer than this library reads (" +
               std::to_string(kVersion) + ")");
    }
    if (version == 0) src.fail("bad format version 0");
    const std::uint64_t header_length = load_le64(pre.data() + 12);
    if (header_length > size - kPreambleBytes) {
      src.fail("truncated: the header takes " + std::to_string(header_length) + " bytes, only " +
               std::to_string(size - kPreambleBytes) + " follow the preamble");
    }
    if (header_length > kMaxHeaderBytes) {
      src.fail("the header takes " + std::to_string(header_length) + " bytes, more than the " +
               std::to_string(kMaxHeaderBytes) + " allowed");
    }
    const Header h = read_header(src, header_length);
    const std::uint64_t data_start = align8(kPreambleBytes + header_length);
    if (data_start > size) src.fail("truncated: the file ends before its data");
    const std::uint64_t data_size = size - data_start;

    if (!h.item_count) src.fail("bad header: no \"item_count\"");
    const std::uint64_t items = *h.item_count;
    if (items > 0 && h.columns.empty()) {
      src.fail("bad header: " + std::to_string(items) + " items but no columns");
    }

    // Every blob must lie in the data area, and no two may share bytes: what is allocated
    // below is then never more than the file holds.
    struct Span {
      std::uint64_t offset, end;
      std::string what;
    };
    std::vector<Span> spans;
    auto place = [&](const std::string& what, std::uint64_t offset, std::uint64_t length) {
      std::uint64_t end = 0;
      if (add_overflows(offset, length, end) || end > data_size) {
        src.fail("truncated: " + what + " takes bytes " + std::to_string(offset) + " to " +
                 (end < offset ? std::string("beyond 2^64") : std::to_string(end)) +
                 " of a data area of " + std::to_string(data_size) + " bytes");
      }
      if (length > 0) spans.push_back({offset, end, what});
    };

    SegmentsEntry seg;
    if (h.segments) {
      seg = *h.segments;
      if (!seg.offset || !seg.length) src.fail("bad header: \"segments\" lacks offset or length");
      if (*seg.length % 16 != 0) {
        src.fail("bad header: a segment table of " + std::to_string(*seg.length) +
                 " bytes is not a whole number of (start, count) pairs");
      }
      place("the segment table", *seg.offset, *seg.length);
    } else if (items > 0) {
      src.fail("bad header: no \"segments\"");
    }

    std::set<std::string_view> names;
    for (const ColumnEntry& c : h.columns) {
      const std::string what = "column " + in_quotes(*c.name);
      if (!names.insert(*c.name).second) {
        src.fail("bad header: " + what + " appears more than once");
      }
      std::uint64_t need = 0;
      if (*c.dtype == DType::Text) {
        if (add_overflows(items, 1, need) || mul_overflows(need, 8, need) || *c.length < need) {
          src.fail("bad header: " + what + " of " + std::to_string(*c.length) +
                   " bytes cannot hold " + std::to_string(items) + " text items");
        }
      } else if (mul_overflows(items, item_width(*c.dtype), need) || *c.length != need) {
        src.fail("bad header: " + what + " of " + std::to_string(*c.length) +
                 " bytes does not hold " + std::to_string(items) + " " + dtype_name(*c.dtype) +
                 " items");
      }
      place(what, *c.offset, *c.length);
    }
    std::sort(spans.begin(), spans.end(),
              [](const Span& a, const Span& b) { return a.offset < b.offset; });
    for (std::size_t i = 1; i < spans.size(); ++i) {
      if (spans[i].offset < spans[i - 1].end) {
        src.fail("bad header: " + spans[i - 1].what + " and " + spans[i].what + " overlap");
      }
    }

    Result r;
    if (h.segments) {
      r.segments_ = read_segments(src, data_start + *seg.offset, *seg.length, items);
    }
    r.size_ = static_cast<std::size_t>(items);
    r.columns_.reserve(h.columns.size());
    for (const ColumnEntry& c : h.columns) {
      const std::uint64_t at = data_start + *c.offset;
      switch (*c.dtype) {
        case DType::Int64:
          r.columns_.emplace_back(*c.name, read_numbers<std::int64_t>(src, at, items));
          break;
        case DType::Float64:
          r.columns_.emplace_back(*c.name, read_numbers<double>(src, at, items));
          break;
        case DType::Complex128:
          r.columns_.emplace_back(*c.name, read_numbers<Complex>(src, at, items));
          break;
        case DType::Text:
          r.columns_.emplace_back(*c.name, read_text(src, *c.name, at, *c.length, items));
          break;
      }
      r.index_.emplace(*c.name, r.columns_.size() - 1);
    }
    return r;
  }
};

Result Result::load_from_file(const std::string& path) {
  ResultDecoder::FileSource src(path);
  return ResultDecoder::decode(src);
}

Result Result::from_bytes(std::span<const std::uint8_t> data, std::string_view name) {
  ResultDecoder::MemorySource src(data, std::string(name));
  return ResultDecoder::decode(src);
}

}  // namespace korvalin_client::experiment
