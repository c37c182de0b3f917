// Result::save_hdf5: one dataset per column plus "item_id", the attributes on the root group.
//
// A column named "/q0/drive/amp" (or "q0/drive/amp") is the dataset "amp" in the groups "q0"
// and "drive". Numbers are 1-D datasets of int64, float64 or a compound {"r", "i"} of float64
// (what h5py reads as complex128); text is variable-length UTF-8 strings. Every dataset is
// written in hyperslabs, one per column block (text in slices of kSlice values), so nothing
// of the size of the result is allocated. The file is built under a temporary name beside the
// target and renamed into place once HDF5 has closed it.
#include <fcntl.h>
#include <hdf5.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstring>
#include <limits>
#include <mutex>
#include <set>
#include <stdexcept>

#include "result_export.hpp"

namespace korvalin_client::experiment {
namespace {

using namespace result_export;

// Text values (and item ids) handed to HDF5 per call at most: the pointers for one slice are
// all we allocate.
constexpr std::size_t kSlice = std::size_t{1} << 16;

// A failed HDF5 call: what we were doing and what HDF5 said. Becomes a RuntimeError naming
// the file.
struct Failure : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// The outermost and innermost entries of HDF5's error stack: the call that failed and its
// deepest cause.
std::string hdf5_error() {
  std::vector<std::string> entries;
  H5Ewalk2(
      H5E_DEFAULT, H5E_WALK_DOWNWARD,
      [](unsigned, const H5E_error2_t* e, void* data) -> herr_t {
        auto& out = *static_cast<std::vector<std::string>*>(data);
        std::string entry =
            std::string(e->func_name ? e->func_name : "?") + ": " + (e->desc ? e->desc : "failed");
        if (entry.size() > 300) {
          entry.resize(300);
          entry += "...";
        }
        out.push_back(std::move(entry));
        return 0;
      },
      &entries);
  if (entries.empty()) return "HDF5 failed";
  return entries.size() == 1 ? entries.front() : entries.front() + " (" + entries.back() + ")";
}

// The first error (an errno value) of the file being written, 0 while there is none. One
// file is written at a time (see Hdf5Use).
int output_error = 0;

[[noreturn]] void fail(const std::string& what) {
  throw Failure(what + ": " + (output_error != 0 ? std::strerror(output_error) : hdf5_error()));
}

// The file driver HDF5 writes through: POSIX reads and writes like its default driver, except
// that a failed write or resize is recorded in output_error and reported to HDF5 as done.
// This HDF5 (1.10) does not survive a failed flush: the file's metadata cache and identifier
// stay half torn down, and the library crashes when the file is closed again or at exit. A
// file that could not be written is discarded anyway, so HDF5 finishes it unaware and we
// report the recorded error (and stop at the next slice of data).
struct OutputFile {
  H5FD_t pub;  // first: HDF5 hands this pointer back to every call
  int fd = -1;
  haddr_t eoa = 0;
  haddr_t eof = 0;
};

OutputFile* output(const H5FD_t* file) {
  return reinterpret_cast<OutputFile*>(const_cast<H5FD_t*>(file));
}

void record(int err) {
  if (output_error == 0) output_error = err != 0 ? err : EIO;
}

// Bytes per read or write call at most, below what the system takes at once.
constexpr std::size_t kMaxIo = std::size_t{1} << 30;

H5FD_t* output_open(const char* name, unsigned flags, hid_t, haddr_t) {
  const int fd = ::open(name,
                        O_RDWR | O_CLOEXEC | (flags & H5F_ACC_CREAT ? O_CREAT : 0) |
                            (flags & H5F_ACC_TRUNC ? O_TRUNC : 0),
                        0644);
  struct stat st {};
  if (fd < 0 || ::fstat(fd, &st) != 0) {
    record(errno);
    if (fd >= 0) ::close(fd);
    return nullptr;
  }
  auto* file = new OutputFile{};
  file->fd = fd;
  file->eof = static_cast<haddr_t>(st.st_size);
  return &file->pub;
}

herr_t output_read(H5FD_t* file, H5FD_mem_t, hid_t, haddr_t addr, size_t size, void* buffer) {
  auto* p = static_cast<char*>(buffer);
  while (size > 0) {
    const ssize_t n =
        ::pread(output(file)->fd, p, std::min(size, kMaxIo), static_cast<off_t>(addr));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {  // past the end of the file (or unreadable): zeros, as the default driver
      if (n < 0) record(errno);
      std::memset(p, 0, size);
      break;
    }
    p += n;
    addr += static_cast<haddr_t>(n);
    size -= static_cast<std::size_t>(n);
  }
  return 0;
}

herr_t output_write(H5FD_t* file, H5FD_mem_t, hid_t, haddr_t addr, size_t size,
                    const void* buffer) {
  OutputFile& f = *output(file);
  f.eof = std::max(f.eof, addr + size);
  const auto* p = static_cast<const char*>(buffer);
  while (size > 0 && output_error == 0) {
    const ssize_t n = ::pwrite(f.fd, p, std::min(size, kMaxIo), static_cast<off_t>(addr));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      record(n < 0 ? errno : EIO);
      break;
    }
    p += n;
    addr += static_cast<haddr_t>(n);
    size -= static_cast<std::size_t>(n);
  }
  return 0;
}

hid_t output_driver() {
  static hid_t id = -1;  // registered once per run of the library
  if (id >= 0 && H5Iis_valid(id) > 0) return id;
  H5FD_class_t c{};
  c.name = "korvalin_export";
  c.maxaddr = static_cast<haddr_t>(std::numeric_limits<off_t>::max());
  c.fc_degree = H5F_CLOSE_WEAK;
  c.open = output_open;
  c.close = [](H5FD_t* file) -> herr_t {
    if (::close(output(file)->fd) != 0) record(errno);
    delete output(file);
    return 0;
  };
  c.query = [](const H5FD_t*, unsigned long* flags) -> herr_t {
    *flags = H5FD_FEAT_AGGREGATE_METADATA | H5FD_FEAT_ACCUMULATE_METADATA | H5FD_FEAT_DATA_SIEVE |
             H5FD_FEAT_AGGREGATE_SMALLDATA;
    return 0;
  };
  c.get_eoa = [](const H5FD_t* file, H5FD_mem_t) { return output(file)->eoa; };
  c.set_eoa = [](H5FD_t* file, H5FD_mem_t, haddr_t addr) -> herr_t {
    output(file)->eoa = addr;
    return 0;
  };
  c.get_eof = [](const H5FD_t* file, H5FD_mem_t) { return output(file)->eof; };
  c.read = output_read;
  c.write = output_write;
  c.truncate = [](H5FD_t* file, hid_t, hbool_t) -> herr_t {
    OutputFile& f = *output(file);
    if (f.eoa != f.eof && output_error == 0 && ::ftruncate(f.fd, static_cast<off_t>(f.eoa)) != 0) {
      record(errno);
    }
    f.eof = f.eoa;
    return 0;
  };
  const H5FD_mem_t map[] = H5FD_FLMAP_DICHOTOMY;
  std::copy(std::begin(map), std::end(map), std::begin(c.fl_map));
  id = H5FDregister(&c);
  return id;
}

void check(herr_t status, const std::string& what) {
  if (status < 0) fail(what);
}

// An HDF5 identifier, closed when it goes out of scope.
class Handle {
 public:
  Handle(hid_t id, herr_t (*close)(hid_t), const std::string& what) : id_(id), close_(close) {
    if (id_ < 0) fail(what);
  }
  ~Handle() {
    if (id_ >= 0) close_(id_);
  }
  Handle(Handle&& other) noexcept : id_(std::exchange(other.id_, -1)), close_(other.close_) {}
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;

  hid_t get() const { return id_; }
  // Closes now; a failure is a Failure.
  void close(const std::string& what) { check(close_(std::exchange(id_, -1)), what); }

 private:
  hid_t id_;
  herr_t (*close_)(hid_t);
};

// One export at a time in this process: HDF5 may be built without thread safety, and
// output_error is one for all. HDF5's own printing of errors to standard error is off
// meanwhile; errors are reported by exceptions.
class Hdf5Use {
 public:
  Hdf5Use() : lock_(mutex()) {
    output_error = 0;
    H5Eget_auto2(H5E_DEFAULT, &saved_func_, &saved_data_);
    H5Eset_auto2(H5E_DEFAULT, nullptr, nullptr);
  }
  ~Hdf5Use() { H5Eset_auto2(H5E_DEFAULT, saved_func_, saved_data_); }
  Hdf5Use(const Hdf5Use&) = delete;
  Hdf5Use& operator=(const Hdf5Use&) = delete;

 private:
  static std::mutex& mutex() {
    static std::mutex m;
    return m;
  }

  std::lock_guard<std::mutex> lock_;
  H5E_auto2_t saved_func_ = nullptr;
  void* saved_data_ = nullptr;
};

// A new empty file beside `path` for HDF5 to fill, removed unless it was renamed into place.
class TempFile {
 public:
  explicit TempFile(const std::string& path) : path_(path) {
    static std::atomic<std::uint64_t> counter{0};
    for (int attempt = 0; attempt < 16; ++attempt) {
      temp_ = path + ".tmp." + std::to_string(::getpid()) + "." + std::to_string(counter++);
      const int fd = ::open(temp_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
      if (fd >= 0) {
        ::close(fd);
        return;
      }
      if (errno != EEXIST) break;
    }
    const int err = errno;
    throw RuntimeError("cannot create a file beside " + path + ": " + std::strerror(err));
  }
  ~TempFile() {
    if (!committed_) ::unlink(temp_.c_str());
  }
  TempFile(const TempFile&) = delete;
  TempFile& operator=(const TempFile&) = delete;

  const std::string& temp() const { return temp_; }
  void commit() {
    if (::rename(temp_.c_str(), path_.c_str()) != 0) {
      const int err = errno;
      throw RuntimeError("cannot write " + path_ + ": " + std::strerror(err));
    }
    committed_ = true;
  }

 private:
  std::string path_;
  std::string temp_;
  bool committed_ = false;
};

// Where each column goes: its name without a leading "/". A name that is no path of a
// dataset of its own is a ValueError naming the column.
std::vector<std::string> dataset_paths(const Result& result) {
  std::set<std::string, std::less<>> datasets{"item_id"};
  std::set<std::string, std::less<>> groups;
  std::vector<std::string> paths;
  for (const auto& entry : result.data()) {
    const std::string& name = entry.first;
    const auto refuse = [&name](const std::string& why) {
      throw ValueError("column \"" + name + "\" cannot be stored in HDF5: " + why);
    };
    std::string_view path = name;
    if (path.starts_with('/')) path.remove_prefix(1);
    if (path.find('\0') != std::string_view::npos) refuse("its name contains a NUL character");
    for (std::size_t start = 0;;) {
      const std::size_t slash = std::min(path.find('/', start), path.size());
      const std::string_view part = path.substr(start, slash - start);
      if (part.empty()) refuse("its path has an empty part");
      if (part == "." || part == "..") refuse("its path has a \"" + std::string(part) + "\" part");
      if (slash == path.size()) break;
      if (datasets.contains(path.substr(0, slash))) {
        refuse("\"/" + std::string(path.substr(0, slash)) + "\" is a dataset, not a group");
      }
      start = slash + 1;
    }
    if (datasets.contains(path)) {
      refuse(path == "item_id" ? "\"/item_id\" holds the item ids"
                               : "another column is stored at \"/" + std::string(path) + "\"");
    }
    if (groups.contains(path)) refuse("\"/" + std::string(path) + "\" is a group of other columns");
    for (std::size_t slash = path.find('/'); slash != std::string_view::npos;
         slash = path.find('/', slash + 1)) {
      groups.emplace(path.substr(0, slash));
    }
    paths.push_back(std::string(path));
    datasets.insert(paths.back());
  }
  return paths;
}

// An attribute that is no scalar of its own, as JSON text.
std::string attribute_json(const Value& value) {
  if (value.is_string() || value.is_number() || value.is_boolean()) return {};
  return value.dump(-1, ' ', false, Value::error_handler_t::replace);
}

// HDF5 names and strings end at a NUL byte: an attribute whose name is empty or holds one, or
// whose text does, is a ValueError naming it.
void check_attributes_hdf5(const Value& attributes) {
  for (const auto& item : attributes.items()) {
    const std::string& name = item.key();
    if (name.empty() || name.find('\0') != std::string::npos ||
        (item.value().is_string() &&
         item.value().get_ref<const std::string&>().find('\0') != std::string::npos)) {
      throw ValueError("attribute \"" + name + "\" cannot be stored in HDF5: its name is " +
                       "empty, or its name or text contains a NUL character");
    }
  }
}

// The datatypes of a file: the types in the file, and the types of our values in memory.
struct Types {
  Handle complex_file{make_complex(H5T_IEEE_F64LE), H5Tclose, "cannot make the complex type"};
  Handle complex_memory{make_complex(H5T_NATIVE_DOUBLE), H5Tclose, "cannot make the complex type"};
  Handle text{make_text(), H5Tclose, "cannot make the text type"};
  Handle boolean{make_bool(), H5Tclose, "cannot make the boolean type"};

  // (file type, memory type) of a dtype's values.
  std::pair<hid_t, hid_t> of(DType dtype) const {
    switch (dtype) {
      case DType::Int64:
        return {H5T_STD_I64LE, H5T_NATIVE_INT64};
      case DType::Float64:
        return {H5T_IEEE_F64LE, H5T_NATIVE_DOUBLE};
      case DType::Complex128:
        return {complex_file.get(), complex_memory.get()};
      case DType::Text:
        return {text.get(), text.get()};
    }
    return {-1, -1};
  }

  // {"r", "i"} in the layout of std::complex<double>; h5py reads it as complex128.
  static hid_t make_complex(hid_t part) {
    const hid_t t = H5Tcreate(H5T_COMPOUND, 2 * sizeof(double));
    if (t >= 0 && (H5Tinsert(t, "r", 0, part) < 0 || H5Tinsert(t, "i", sizeof(double), part) < 0)) {
      H5Tclose(t);
      return -1;
    }
    return t;
  }
  static hid_t make_text() {
    const hid_t t = H5Tcopy(H5T_C_S1);
    if (t >= 0 && (H5Tset_size(t, H5T_VARIABLE) < 0 || H5Tset_cset(t, H5T_CSET_UTF8) < 0)) {
      H5Tclose(t);
      return -1;
    }
    return t;
  }
  // An enumeration FALSE = 0, TRUE = 1 over int8, which h5py reads as a boolean.
  static hid_t make_bool() {
    const hid_t t = H5Tenum_create(H5T_NATIVE_INT8);
    const std::int8_t no = 0, yes = 1;
    if (t >= 0 && (H5Tenum_insert(t, "FALSE", &no) < 0 || H5Tenum_insert(t, "TRUE", &yes) < 0)) {
      H5Tclose(t);
      return -1;
    }
    return t;
  }
};

// Text values as HDF5 takes them: NUL-terminated, so a value holding a NUL byte cannot be
// stored whole and is refused rather than cut short.
const char* c_text(const std::string& text, const std::string& column) {
  if (text.find('\0') != std::string::npos) {
    throw ValueError("column \"" + column + "\" cannot be stored in HDF5: a text value " +
                     "contains a NUL character");
  }
  return text.c_str();
}

// Writes `count` values from `data` at `offset` of the dataset `dataset`.
void write_slice(hid_t dataset, hid_t file_space, hid_t memory_type, hsize_t offset, hsize_t count,
                 const void* data, const std::string& where) {
  check(H5Sselect_hyperslab(file_space, H5S_SELECT_SET, &offset, nullptr, &count, nullptr),
        "cannot select items of " + where);
  Handle memory_space(H5Screate_simple(1, &count, nullptr), H5Sclose, "cannot write " + where);
  check(H5Dwrite(dataset, memory_type, memory_space.get(), file_space, H5P_DEFAULT, data),
        "cannot write " + where);
  if (output_error != 0) fail("cannot write " + where);
}

class Writer {
 public:
  Writer(hid_t file, const Types& types) : file_(file), types_(types) {
    check(H5Pset_create_intermediate_group(links_.get(), 1), "cannot set up link creation");
    check(H5Pset_char_encoding(links_.get(), H5T_CSET_UTF8), "cannot set up link creation");
    check(H5Pset_char_encoding(attribute_names_.get(), H5T_CSET_UTF8),
          "cannot set up attribute creation");
  }

  void item_ids(const Result& result) {
    Dataset d = create("item_id", DType::Int64, result.size());
    ItemIds ids(result);
    std::vector<std::int64_t> slice;
    for (std::size_t done = 0; done < result.size(); done += slice.size()) {
      slice.resize(std::min(kSlice, result.size() - done));
      for (auto& id : slice) id = ids.next();
      write_slice(d.dataset.get(), d.space.get(), H5T_NATIVE_INT64, done, slice.size(),
                  slice.data(), "dataset \"/item_id\"");
    }
    d.dataset.close("cannot write dataset \"/item_id\"");
  }

  void column(const std::string& path, const std::string& name, const Column& column) {
    Dataset d = create(path, column.dtype(), column.size());
    const std::string where = "dataset \"/" + path + "\"";
    const hid_t memory_type = types_.of(column.dtype()).second;
    std::size_t offset = 0;
    std::vector<const char*> texts;
    for_each_block(column, [&](auto block) {
      if constexpr (std::is_same_v<typename decltype(block)::value_type, std::string>) {
        for (std::size_t i = 0; i < block.size(); i += texts.size()) {
          texts.resize(std::min(kSlice, block.size() - i));
          for (std::size_t k = 0; k < texts.size(); ++k) {
            texts[k] = c_text(block[i + k], name);
          }
          write_slice(d.dataset.get(), d.space.get(), memory_type, offset + i, texts.size(),
                      texts.data(), where);
        }
      } else {
        write_slice(d.dataset.get(), d.space.get(), memory_type, offset, block.size(),
                    block.data(), where);
      }
      offset += block.size();
    });
    d.dataset.close("cannot write " + where);
  }

  // A scalar attribute of the root group: text, an integer, a real or a boolean as itself,
  // anything else (lists, mappings, null) as its JSON text. Checked by check_attributes_hdf5.
  void attribute(const std::string& name, const Value& value) {
    const std::string where = "attribute \"" + name + "\"";
    const std::int8_t boolean = value.is_boolean() && value.get<bool>();
    const bool is_unsigned = value.is_number_unsigned() &&
                             value.get<std::uint64_t>() > std::numeric_limits<std::int64_t>::max();
    const std::uint64_t unsigned_integer = is_unsigned ? value.get<std::uint64_t>() : 0;
    const std::int64_t integer =
        value.is_number_integer() && !is_unsigned ? value.get<std::int64_t>() : 0;
    const double real = value.is_number_float() ? value.get<double>() : 0;
    const std::string text = value.is_string() ? value.get<std::string>() : attribute_json(value);
    const char* text_pointer = text.c_str();

    hid_t file_type = types_.text.get(), memory_type = types_.text.get();
    const void* data = &text_pointer;
    if (value.is_boolean()) {
      file_type = memory_type = types_.boolean.get();
      data = &boolean;
    } else if (is_unsigned) {
      file_type = H5T_STD_U64LE, memory_type = H5T_NATIVE_UINT64, data = &unsigned_integer;
    } else if (value.is_number_integer()) {
      file_type = H5T_STD_I64LE, memory_type = H5T_NATIVE_INT64, data = &integer;
    } else if (value.is_number_float()) {
      file_type = H5T_IEEE_F64LE, memory_type = H5T_NATIVE_DOUBLE, data = &real;
    }
    Handle space(H5Screate(H5S_SCALAR), H5Sclose, "cannot write " + where);
    Handle attribute(H5Acreate2(file_, name.c_str(), file_type, space.get(), attribute_names_.get(),
                                H5P_DEFAULT),
                     H5Aclose, "cannot create " + where);
    check(H5Awrite(attribute.get(), memory_type, data), "cannot write " + where);
    attribute.close("cannot write " + where);
  }

 private:
  struct Dataset {
    Handle space;
    Handle dataset;
  };

  Dataset create(const std::string& path, DType dtype, std::size_t size) {
    const hsize_t n = size;
    Handle space(H5Screate_simple(1, &n, nullptr), H5Sclose,
                 "cannot create dataset \"/" + path + "\"");
    const hid_t id = H5Dcreate2(file_, path.c_str(), types_.of(dtype).first, space.get(),
                                links_.get(), H5P_DEFAULT, H5P_DEFAULT);
    Handle dataset(id, H5Dclose, "cannot create dataset \"/" + path + "\"");
    return Dataset{.space = std::move(space), .dataset = std::move(dataset)};
  }

  hid_t file_;
  const Types& types_;
  Handle links_{H5Pcreate(H5P_LINK_CREATE), H5Pclose, "cannot set up link creation"};
  Handle attribute_names_{H5Pcreate(H5P_ATTRIBUTE_CREATE), H5Pclose,
                          "cannot set up attribute creation"};
};

}  // namespace

void Result::save_hdf5(const std::string& path, const Value& attributes) const {
  check_attributes(attributes);
  check_attributes_hdf5(attributes);
  const std::vector<std::string> paths = dataset_paths(*this);
  Hdf5Use use;
  TempFile temp(path);
  try {
    Handle access(H5Pcreate(H5P_FILE_ACCESS), H5Pclose, "cannot set up file access");
    // The 1.8 file format: readable by every HDF5 of the last fifteen years, and it keeps
    // attributes of any number and size.
    check(H5Pset_libver_bounds(access.get(), H5F_LIBVER_V18, H5F_LIBVER_V18),
          "cannot set up file access");
    check(H5Pset_driver(access.get(), output_driver(), nullptr), "cannot set up file access");
    Handle file(H5Fcreate(temp.temp().c_str(), H5F_ACC_TRUNC, H5P_DEFAULT, access.get()), H5Fclose,
                "cannot create the file");
    {
      const Types types;
      Writer writer(file.get(), types);
      writer.item_ids(*this);
      for (std::size_t i = 0; i < paths.size(); ++i) {
        writer.column(paths[i], data()[i].first, data()[i].second);
      }
      for (const auto& item : attributes.items()) writer.attribute(item.key(), item.value());
    }
    file.close("cannot close the file");
    if (output_error != 0) fail("cannot write the file");
  } catch (const Failure& e) {
    throw RuntimeError("cannot write " + path + ": " + e.what());
  }
  temp.commit();
}

}  // namespace korvalin_client::experiment
