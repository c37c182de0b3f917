// Result exports as other programs read them: the JSON through nlohmann's parser, the CSV
// through Python's csv module and the HDF5 through h5py (Debian's python3-h5py).
#include <sys/resource.h>

#include <cmath>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <limits>

#include "korvalin_client/experiment/result.hpp"
#include "korvalin_client/utils/files.hpp"
#include "support/child_process.hpp"
#include "support/testing.hpp"

namespace {

using kc::experiment::Column;
using kc::experiment::Result;
using kc::testing::ChildProcess;
using kc::testing::TempCacheRoot;

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInf = std::numeric_limits<double>::infinity();

// For each (csv, hdf5) pair of arguments: the CSV's rows, every dataset as [dtype, values],
// the root's attributes as [Python type, value], and the shapes of f["/q0/drive/amp"] and
// f["I"] when there is an "I". Written as JSON to the last argument; non-finite reals as text.
constexpr const char* kReader = R"(
import csv, json, math, sys
import h5py

def plain(v):
    if isinstance(v, complex): return [plain(v.real), plain(v.imag)]
    if isinstance(v, float) and not math.isfinite(v): return str(v)
    return v

out = []
for csv_path, h5_path in zip(sys.argv[1:-1:2], sys.argv[2:-1:2]):
    with open(csv_path, newline='', encoding='utf-8') as f:
        rows = list(csv.reader(f))
    datasets, attrs = {}, {}
    with h5py.File(h5_path, 'r') as f:
        def visit(name, obj):
            if isinstance(obj, h5py.Dataset):
                text = h5py.check_string_dtype(obj.dtype)
                values = (obj.asstr() if text else obj)[()].tolist()
                datasets[name] = [str(obj.dtype), [plain(v) for v in values]]
        f.visititems(visit)
        for k, v in f.attrs.items():
            attrs[k] = [type(v).__name__, plain(v.item() if hasattr(v, 'item') else v)]
        probe = [f['/q0/drive/amp'].shape[0], f['I'].shape[0]] if 'I' in f else []
    out.append({'csv': rows, 'datasets': datasets, 'attrs': attrs, 'probe': probe})
json.dump(out, open(sys.argv[-1], 'w'))
)";

Value read_json(const std::string& path) {
  const kc::Bytes bytes = kc::utils::read_file(path);
  return Value::parse(bytes.begin(), bytes.end());
}

// `v` with its mappings compared regardless of key order.
nlohmann::json unordered(const Value& v) { return nlohmann::json::parse(v.dump()); }

std::vector<std::string> entries(const std::string& dir) {
  std::vector<std::string> names;
  for (const auto& e : std::filesystem::directory_iterator(dir)) {
    names.push_back(e.path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

TEST(ResultExport, EveryFormatKeepsTypesNamesGapsAndAttributes) {
  TempCacheRoot dir;
  // Items 0, 1 and, after a gap, 5: every column is two blocks.
  Result result(false, false);
  result.concatenate(Result::from_columns(
      0, {{"shot", Column(std::vector<std::int64_t>{7, std::numeric_limits<std::int64_t>::min()})},
          {"I", Column(std::vector<double>{0.1 + 0.2, kNaN})},
          {"z", Column(std::vector<std::complex<double>>{{1, -2.5}, {kInf, 0}})},
          {"/q0/drive/amp", Column(std::vector<double>{1, -0.0})},
          {"label", Column(std::vector<std::string>{"a,\"b\"\nc", ""})}}));
  result.concatenate(
      Result::from_columns(5, {{"shot", Column(std::vector<std::int64_t>{8})},
                               {"I", Column(std::vector<double>{1e300})},
                               {"z", Column(std::vector<std::complex<double>>{{-kInf, kNaN}})},
                               {"/q0/drive/amp", Column(std::vector<double>{2.5})},
                               {"label", Column(std::vector<std::string>{"µs"})}}));
  const Value attributes = {{"title", "Rabi µ"},    {"exp_id", 42},
                            {"status", "complete"}, {"sweep", {{"/q0/drive/amp", {0.1, 0.2}}}},
                            {"calibrated", true},   {"gain", 0.5}};
  const std::string base = dir.path() + "/r", empty = dir.path() + "/empty";
  result.save_csv(base + ".csv");
  result.save_json(base + ".json", attributes);
  result.save_hdf5(base + ".h5", attributes);
  Result().save_csv(empty + ".csv");
  Result().save_json(empty + ".json");
  Result().save_hdf5(empty + ".h5");

  const Value json = read_json(base + ".json");
  EXPECT_EQ(json["attributes"], attributes);
  EXPECT_EQ(json["dtypes"], Value({{"shot", "int64"},
                                   {"I", "float64"},
                                   {"z", "complex128"},
                                   {"/q0/drive/amp", "float64"},
                                   {"label", "text"}}));
  EXPECT_EQ(json["item_id"], Value({0, 1, 5}));
  EXPECT_EQ(json["columns"], Value({{"shot", {7, std::numeric_limits<std::int64_t>::min(), 8}},
                                    {"I", {0.1 + 0.2, nullptr, 1e300}},
                                    {"z", {{1.0, -2.5}, {nullptr, 0.0}, {nullptr, nullptr}}},
                                    {"/q0/drive/amp", {1.0, -0.0, 2.5}},
                                    {"label", {"a,\"b\"\nc", "", "µs"}}}));
  EXPECT_TRUE(std::signbit(json["columns"]["/q0/drive/amp"][1].get<double>()));
  EXPECT_EQ(read_json(empty + ".json"), Value({{"attributes", Value::object()},
                                               {"dtypes", Value::object()},
                                               {"item_id", Value::array()},
                                               {"columns", Value::object()}}));

  const std::string script = dir.path() + "/read.py", read = dir.path() + "/read.json";
  std::ofstream(script) << kReader;
  ChildProcess python({"/usr/bin/python3", script, base + ".csv", base + ".h5", empty + ".csv",
                       empty + ".h5", read},
                      dir.path() + "/python.log");
  ASSERT_EQ(python.wait(), 0) << python.output();
  const Value seen = read_json(read);

  EXPECT_EQ(seen[0]["csv"],
            Value({{"item_id", "shot", "I", "z.re", "z.im", "/q0/drive/amp", "label"},
                   {"0", "7", "0.30000000000000004", "1.0", "-2.5", "1.0", "a,\"b\"\nc"},
                   {"1", "-9223372036854775808", "nan", "inf", "0.0", "-0.0", ""},
                   {"5", "8", "1e+300", "-inf", "nan", "2.5", "µs"}}));
  EXPECT_EQ(unordered(seen[0]["datasets"]),
            nlohmann::json({{"I", {"float64", {0.1 + 0.2, "nan", 1e300}}},
                            {"item_id", {"int64", {0, 1, 5}}},
                            {"label", {"object", {"a,\"b\"\nc", "", "µs"}}},
                            {"q0/drive/amp", {"float64", {1.0, -0.0, 2.5}}},
                            {"shot", {"int64", {7, std::numeric_limits<std::int64_t>::min(), 8}}},
                            {"z", {"complex128", {{1.0, -2.5}, {"inf", 0.0}, {"-inf", "nan"}}}}}));
  EXPECT_EQ(unordered(seen[0]["attrs"]),
            nlohmann::json({{"calibrated", {"bool_", true}},
                            {"exp_id", {"int64", 42}},
                            {"gain", {"float64", 0.5}},
                            {"status", {"str", "complete"}},
                            {"sweep", {"str", "{\"/q0/drive/amp\":[0.1,0.2]}"}},
                            {"title", {"str", "Rabi µ"}}}));
  EXPECT_EQ(seen[0]["probe"], Value({3, 3}));
  EXPECT_EQ(seen[1], Value({{"csv", {{"item_id"}}},
                            {"datasets", {{"item_id", {"int64", Value::array()}}}},
                            {"attrs", Value::object()},
                            {"probe", Value::array()}}));
}

TEST(ResultExport, RefusalsAndFailedWritesLeaveNothingBehind) {
  TempCacheRoot root;
  const std::string dir = root.path() + "/results", out = dir + "/out";
  kc::utils::make_dirs(dir);
  const auto floats = [](std::vector<std::string> names) {
    std::vector<std::pair<std::string, Column>> columns;
    for (auto& name : names) columns.emplace_back(std::move(name), Column(std::vector<double>{1}));
    return Result::from_columns(0, std::move(columns));
  };
  const Result x = floats({"x"});

  const std::string missing = dir + "/no/such/dir/r";
  EXPECT_THAT(error_of<kc::RuntimeError>([&] { x.save_csv(missing); }), HasSubstr(missing));
  EXPECT_THAT(error_of<kc::RuntimeError>([&] { x.save_json(missing); }), HasSubstr(missing));
  EXPECT_THAT(error_of<kc::RuntimeError>([&] { x.save_hdf5(missing); }), HasSubstr(missing));
  EXPECT_THAT(error_of<kc::TypeError>([&] { x.save_json(out, Value::array()); }),
              HasSubstr("attributes"));
  EXPECT_THAT(error_of<kc::TypeError>([&] { x.save_hdf5(out, "title"); }), HasSubstr("attributes"));
  const Value unnamed = {{"", 1}};
  EXPECT_THAT(error_of<kc::ValueError>([&] { x.save_hdf5(out, unnamed); }),
              HasSubstr("attribute \"\""));

  // Names that are no dataset path of their own; the refused column is named.
  const std::vector<std::pair<std::vector<std::string>, std::string>> hdf5_refusals = {
      {{"/a", "/a/b"}, "/a/b"},
      {{"a/b/c", "/a/b"}, "/a/b"},
      {{"/a", "a"}, "a"},
      {{"item_id"}, "item_id"},
      {{"x//y"}, "x//y"},
      {{"/q0/../x"}, "/q0/../x"},
      {{"/"}, "/"}};
  for (const auto& [names, refused] : hdf5_refusals) {
    EXPECT_THAT(error_of<kc::ValueError>([&] { floats(names).save_hdf5(out); }),
                HasSubstr("column \"" + refused + "\""));
  }
  const Result nul =
      Result::from_columns(0, {{"t", Column(std::vector<std::string>{std::string("a\0b", 3)})}});
  EXPECT_THAT(error_of<kc::ValueError>([&] { nul.save_hdf5(out); }), HasSubstr("column \"t\""));
  const Result complex_clash =
      Result::from_columns(0, {{"z", Column(std::vector<std::complex<double>>{{1, 2}})},
                               {"z.im", Column(std::vector<double>{1})}});
  EXPECT_THAT(error_of<kc::ValueError>([&] { complex_clash.save_csv(out); }),
              HasSubstr("column \"z.im\""));
  EXPECT_THAT(error_of<kc::ValueError>([&] { floats({"item_id"}).save_csv(out); }),
              HasSubstr("column \"item_id\""));
  EXPECT_EQ(entries(dir), std::vector<std::string>{});

  // A write that fails halfway (the file size limit is reached) keeps the old file and
  // removes the temporary one, and HDF5 goes on working, through the exit. In a child, where
  // the limit stays.
  ChildProcess child([&](ChildProcess&) -> bool {
    kc::utils::write_file_atomic(out, std::vector<std::uint8_t>{'o', 'l', 'd'});
    std::signal(SIGXFSZ, SIG_IGN);
    const rlimit limit{.rlim_cur = 1 << 16, .rlim_max = 1 << 16};
    if (::setrlimit(RLIMIT_FSIZE, &limit) != 0) std::exit(2);
    const Result big =
        Result::from_columns(0, {{"v", Column(std::vector<double>(100000, 0.1))},
                                 {"t", Column(std::vector<std::string>(100000, "some text"))}});
    const auto fails = [&](auto save) {
      try {
        save();
      } catch (const kc::RuntimeError& e) {
        return std::string(e.what()).find(out) != std::string::npos;
      }
      return false;
    };
    const bool ok = fails([&] { big.save_csv(out); }) && fails([&] { big.save_json(out); }) &&
                    fails([&] { big.save_hdf5(out); }) &&
                    entries(dir) == std::vector<std::string>{"out"} &&
                    kc::utils::read_file(out) == kc::Bytes{'o', 'l', 'd'};
    x.save_hdf5(dir + "/small.h5");
    std::exit(ok ? 0 : 1);  // with the libraries' exit handlers, unlike returning
  });
  EXPECT_EQ(child.wait(), 0);
}

}  // namespace
