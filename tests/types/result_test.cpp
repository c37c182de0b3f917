// Result: joining chunks, its file format, and files that are damaged or hostile.
#include "korvalin_client/experiment/result.hpp"

#include <cmath>
#include <limits>
#include <random>

#include "korvalin_client/utils/files.hpp"
#include "support/testing.hpp"

namespace korvalin_client::experiment {
namespace {

using Complex = std::complex<double>;
using Ints = std::vector<std::int64_t>;
using Reals = std::vector<double>;
using Texts = std::vector<std::string>;

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

Result chunk(std::int64_t start, std::vector<std::pair<std::string, Column>> columns) {
  return Result::from_columns(start, std::move(columns));
}

Result ints(std::int64_t start, Ints values) { return chunk(start, {{"x", std::move(values)}}); }

// ---- joining --------------------------------------------------------------------------------

// Chunks join in item order only (a refused one changes nothing, an empty one neither); a moved
// chunk's column becomes a block without a copy; a lenient join keeps gaps.
TEST(ResultJoin, ChunksJoinInItemOrderOnlyAndALenientJoinKeepsGaps) {
  Result r;
  EXPECT_THAT(error_of<RuntimeError>([&] { r.concatenate(ints(1, {1})); }),
              HasSubstr("exp_res_order_wrong: Results are out of order: the current result object "
                        "ends at item -1, the next one should start at 0, but it starts at 1."));
  const Result first = ints(0, {1, 2, 3});
  r.concatenate(first);  // a copy: the chunk keeps its items
  EXPECT_EQ(first.size(), 3u);
  const std::string saved = languages::lang.language;
  languages::lang.language = "cn";
  const std::string cn = error_of<RuntimeError>([&] { r.concatenate(ints(5, {9})); });
  languages::lang.language = saved;
  EXPECT_THAT(cn, HasSubstr("exp_res_order_wrong: "));
  EXPECT_THAT(cn, HasSubstr("当前结果对象结束于 2"));
  EXPECT_THAT(cn, HasSubstr("下一步应开始于 3"));
  EXPECT_THROW(r.concatenate(ints(2, {9})), RuntimeError);
  r.concatenate(ints(3, {4, 5})).concatenate(chunk(9, {{"x", Ints{}}}));
  EXPECT_EQ(r.size(), 5u);
  EXPECT_EQ(r.item_id_end(), 4);
  EXPECT_THAT(r.item_ids(), ElementsAre(0, 1, 2, 3, 4));
  EXPECT_THAT(r["x"].to_vector<std::int64_t>(), ElementsAre(1, 2, 3, 4, 5));

  Reals big(100000, 1.5);
  const double* data = big.data();
  std::vector<std::pair<std::string, Column>> columns;  // emplaced: a braced list would copy
  columns.emplace_back("x", std::move(big));
  r.concatenate(Result::from_columns(5, std::move(columns)));
  EXPECT_EQ(r["x"].block<double>(r["x"].block_count() - 1).data(), data);
  EXPECT_EQ(r["x"].value(100004), 1.5);
  EXPECT_EQ(r["x"].value(4), 5.0);

  // A lenient join keeps gaps as segments, but never goes back either.
  Result lenient(false, false);
  lenient.concatenate(ints(2, {1, 2})).concatenate(ints(7, {3, 4, 5})).concatenate(ints(10, {6}));
  EXPECT_EQ(lenient.item_id_start(), 2);
  EXPECT_EQ(lenient.item_id_end(), 10);
  using Run = std::pair<std::int64_t, std::int64_t>;
  EXPECT_THAT(lenient.segments(), ElementsAre(Run{2, 2}, Run{7, 4}));
  EXPECT_THAT(lenient.item_ids(), ElementsAre(2, 3, 7, 8, 9, 10));
  EXPECT_THAT(error_of<RuntimeError>([&] { lenient.concatenate(ints(10, {0})); }),
              HasSubstr("exp_res_order_wrong"));
  EXPECT_THROW(lenient.concatenate(ints(4, {0})), RuntimeError);
  EXPECT_EQ(lenient.size(), 6u);
}

// Joining by copy and copying share blocks instead of bytes; whatever is joined, filled or
// widened afterwards, neither side ever sees the other change.
TEST(ResultJoin, SharedBlocksNeverChangeUnderTheirOtherHolders) {
  const Result kept = ints(0, Ints(5000, 7));  // large enough to be shared, not copied
  Result all;
  all.concatenate(kept);
  EXPECT_EQ(all["x"].block<std::int64_t>(0).data(), kept["x"].block<std::int64_t>(0).data());
  all.concatenate(ints(5000, {8}));  // copied into a block of all's own, with room to spare
  const Result snapshot = all;         // which the copy now shares
  all.concatenate(ints(5001, {9}));    // so this goes to a new block, not into the spare room
  Result lenient(false, false);
  lenient.concatenate(all).concatenate(chunk(6000, {{"y", Texts{"t"}}}));  // fills and widens
  lenient.concatenate(chunk(6001, {{"x", Reals{0.5}}}));
  all.concatenate(chunk(5002, {{"x", Reals{2.5}}}));  // widens all's blocks to float64

  EXPECT_EQ(kept.size(), 5000u);
  EXPECT_EQ(kept["x"].dtype(), DType::Int64);
  EXPECT_EQ(kept["x"].to_vector<std::int64_t>(), Ints(5000, 7));
  Ints expected(5000, 7);
  expected.push_back(8);
  EXPECT_EQ(snapshot.size(), 5001u);
  EXPECT_EQ(snapshot["x"].to_vector<std::int64_t>(), expected);
  EXPECT_EQ(all["x"].value(5002), 2.5);
  EXPECT_EQ(all["x"].value(4999), 7.0);
  EXPECT_EQ(lenient.size(), 5004u);
  EXPECT_TRUE(std::isnan(lenient["x"].value(5002).get<double>()));
  EXPECT_EQ(lenient["x"].value(5003), 0.5);
  EXPECT_EQ(lenient["y"].value(0), "");
}

TEST(ResultJoin, NumbersWidenOnEitherSideAndTextNeverMixesWithNumbers) {
  Result r;
  r.concatenate(ints(0, {1, 2}));
  r.concatenate(chunk(2, {{"x", Reals{2.5}}}));
  EXPECT_EQ(r["x"].dtype(), DType::Float64);
  r.concatenate(ints(3, {4}));  // an int chunk joins a float column as floats
  r.concatenate(chunk(4, {{"x", std::vector<Complex>{{0, 1}}}}));
  EXPECT_EQ(r["x"].dtype(), DType::Complex128);
  EXPECT_THAT(
      r["x"].to_vector<Complex>(),
      ElementsAre(Complex(1, 0), Complex(2, 0), Complex(2.5, 0), Complex(4, 0), Complex(0, 1)));
  EXPECT_EQ(r["x"].value(4), Value::parse("[0.0, 1.0]"));

  EXPECT_THAT(error_of<TypeError>([&] {
                r.concatenate(chunk(5, {{"x", Texts{"a"}}}));
              }),
              HasSubstr("\"x\""));
  EXPECT_EQ(r.size(), 5u);
  EXPECT_THROW(r["x"].to_vector<double>(), TypeError);
  EXPECT_THROW(r["x"].block<double>(0), TypeError);
  EXPECT_THROW(r["x"].value(5), ValueError);
  EXPECT_THROW(r["y"], KeyError);
}

TEST(ResultJoin, ColumnSetsMustMatchUnlessLenientWhichFillsTheGapsAndChunksMustBeWhole) {
  Result strict;
  strict.concatenate(chunk(0, {{"a", Ints{1}}, {"b", Ints{2}}}));
  strict.concatenate(chunk(1, {{"b", Ints{3}}, {"a", Ints{4}}}));  // any order
  const std::string e = error_of<ValueError>([&] {
    strict.concatenate(chunk(2, {{"a", Ints{1}}, {"c", Ints{2}}}));
  });
  EXPECT_THAT(e, HasSubstr("missing \"b\""));
  EXPECT_THAT(e, HasSubstr("extra \"c\""));

  Result r(false, false);
  r.concatenate(chunk(0, {{"n", Ints{1}}, {"t", Texts{"a"}}}));
  r.concatenate(chunk(1, {{"z", std::vector<Complex>{{1, 1}}}, {"u", Ints{7}}}));
  EXPECT_THAT(r.keys(), ElementsAre("n", "t", "z", "u"));
  EXPECT_EQ(r["n"].dtype(), DType::Float64);
  EXPECT_EQ(r["n"].value(0), 1.0);
  EXPECT_TRUE(std::isnan(r["n"].to_vector<double>()[1]));
  EXPECT_THAT(r["t"].to_vector<std::string>(), ElementsAre("a", ""));
  EXPECT_EQ(r["z"].dtype(), DType::Complex128);
  EXPECT_TRUE(std::isnan(r["z"].to_vector<Complex>()[0].real()));
  EXPECT_EQ(r["u"].dtype(), DType::Float64);
  EXPECT_EQ(r["u"].value(1), 7.0);

  // from_columns refuses columns of unequal length, a name twice, and ids out of range.
  EXPECT_THROW(chunk(0, {{"a", Ints{1}}, {"b", Ints{1, 2}}}), ValueError);
  EXPECT_THROW(chunk(0, {{"a", Ints{1}}, {"a", Ints{2}}}), ValueError);
  EXPECT_THROW(chunk(-1, {{"a", Ints{1}}}), ValueError);
  EXPECT_THROW(chunk(std::numeric_limits<std::int64_t>::max(), {{"a", Ints{1, 2}}}), ValueError);
}

// ---- round trip -----------------------------------------------------------------------------

Result every_dtype() {
  Result r(false, true);
  r.concatenate(chunk(0, {{"i", Ints{std::numeric_limits<std::int64_t>::min(), 0}},
                          {"f", Reals{kNaN, -0.0}},
                          {"c", std::vector<Complex>{{1, -2}, {kNaN, 3}}},
                          {"t", Texts{"", "温度 ✓"}}}));
  r.concatenate(chunk(5, {{"i", Ints{7}},
                          {"f", Reals{std::numeric_limits<double>::infinity()}},
                          {"c", std::vector<Complex>{{0, 0}}},
                          {"t", Texts{std::string("a\0b", 3)}}}));
  return r;
}

void expect_same(const Result& a, const Result& b) {
  ASSERT_EQ(a.keys(), b.keys());
  EXPECT_EQ(a.segments(), b.segments());
  for (const auto& [name, column] : a.data()) {
    ASSERT_EQ(column.dtype(), b[name].dtype()) << name;
    // Compared as encoded values so that NaN compares equal to NaN.
    for (std::size_t i = 0; i < column.size(); ++i) {
      EXPECT_EQ(column.value(i).dump(), b[name].value(i).dump()) << name << " " << i;
    }
  }
}

TEST(ResultFile, EveryDtypeAndManyBlocksSurviveFileAndBytes) {
  testing::TempCacheRoot tmp;
  const std::string path = tmp.path() + "/r.kvres";
  const Result r = every_dtype();
  r.save_to_file(path);
  const Result loaded = Result::load_from_file(path);
  expect_same(r, loaded);
  EXPECT_TRUE(std::isnan(loaded["f"].to_vector<double>()[0]));
  EXPECT_TRUE(std::signbit(loaded["f"].to_vector<double>()[1]));
  EXPECT_EQ(loaded["t"].to_vector<std::string>()[2], std::string("a\0b", 3));
  EXPECT_EQ(r.to_bytes(), utils::read_file(path));
  expect_same(r, Result::from_bytes(r.to_bytes()));

  for (const Result& empty : {Result(), chunk(0, {{"a", Ints{}}, {"t", Texts{}}})}) {
    const Result back = Result::from_bytes(empty.to_bytes());
    EXPECT_EQ(back.keys(), empty.keys());
    EXPECT_TRUE(back.empty());
  }

  Result blocks;
  for (std::int64_t k = 0; k < 5; ++k) {
    blocks.concatenate(chunk(k * 50000, {{"v", Reals(50000, static_cast<double>(k))}}));
  }
  ASSERT_GT(blocks["v"].block_count(), 1u);
  EXPECT_EQ(Result::from_bytes(blocks.to_bytes())["v"].to_vector<double>(),
            blocks["v"].to_vector<double>());
}

// ---- hostile files --------------------------------------------------------------------------

// A file with the given preamble fields, header and data area.
Bytes craft(const Value& header, const Bytes& data = {}, std::uint32_t version = 1) {
  const Bytes h = Value::to_msgpack(header);
  Bytes out{0x89, 'K', 'V', 'R', 'E', 'S', '\r', '\n'};
  for (int i = 0; i < 4; ++i) out.push_back(static_cast<std::uint8_t>(version >> (8 * i)));
  for (int i = 0; i < 8; ++i) out.push_back(static_cast<std::uint8_t>(h.size() >> (8 * i)));
  out.insert(out.end(), h.begin(), h.end());
  out.resize((out.size() + 7) / 8 * 8);
  out.insert(out.end(), data.begin(), data.end());
  return out;
}

Value one_column(std::uint64_t items, const char* dtype, std::uint64_t offset,
                 std::uint64_t length) {
  return {{"item_count", items},
          {"segments", {{"offset", 0}, {"length", 16}}},
          {"columns", {{{"name", "x"}, {"dtype", dtype}, {"offset", offset}, {"length", length}}}}};
}

std::string load_error(const Bytes& b) {
  return error_of<RuntimeError>([&] { Result::from_bytes(b, "bad.kvres"); });
}

// Damaged, foreign and future files fail cleanly, naming the file.
TEST(ResultFile, DamagedForeignAndFutureFilesAreErrorsNamingTheFile) {
  const Bytes good = every_dtype().to_bytes();
  for (std::size_t n = 0; n < good.size(); ++n) {
    EXPECT_THAT(load_error(Bytes(good.begin(), good.begin() + n)), HasSubstr("bad.kvres: "))
        << "prefix of " << n;
  }
  for (std::size_t i = 0; i < good.size(); ++i) {
    for (std::uint8_t mask : {0x01, 0x80, 0xff}) {
      Bytes b = good;
      b[i] ^= mask;
      try {
        Result::from_bytes(b, "bad.kvres");
      } catch (const RuntimeError& e) {
        EXPECT_THAT(e.what(), HasSubstr("bad.kvres: "));
      }
    }
  }

  testing::TempCacheRoot tmp;
  const std::string path = tmp.path() + "/foreign.kvres";
  utils::write_file_atomic(path, Bytes{'P', 'K', 3, 4, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0});
  EXPECT_EQ(error_of<RuntimeError>([&] { Result::load_from_file(path); }),
            path + ": not a result file (bad magic)");
  EXPECT_THAT(error_of<RuntimeError>([&] { Result::load_from_file(tmp.path()); }),
              HasSubstr("not a regular file"));
  EXPECT_THAT(error_of<RuntimeError>([&] { Result::load_from_file(tmp.path() + "/none"); }),
              HasSubstr(tmp.path() + "/none"));
  EXPECT_EQ(load_error(craft(Value::object(), {}, 7)),
            "bad.kvres: format version 7 is newer than this library reads (1)");

  std::mt19937 rng(7);
  for (int round = 0; round < 500; ++round) {
    Bytes b = craft(Value::object());
    b.resize(20);  // a valid preamble announcing 64 bytes of header, then noise
    b[12] = 64;
    for (int k = 0; k < 64 + 8 * round; ++k) b.push_back(static_cast<std::uint8_t>(rng()));
    EXPECT_THAT(load_error(b), HasSubstr("bad.kvres: "));
    EXPECT_THAT(load_error(Bytes(b.begin() + 20, b.end())), HasSubstr("bad magic"));
  }
}

TEST(ResultFile, DeclaredSizesMustBeBackedByTheFileAndHeadersBeShallow) {
  const Bytes seg{0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0};  // one run: (0, 1)
  Bytes data = seg;
  data.resize(24);
  EXPECT_NO_THROW(Result::from_bytes(craft(one_column(1, "int64", 16, 8), data)));

  const std::uint64_t huge = std::uint64_t{1} << 60;
  for (const auto& [column, expected] : std::vector<std::pair<Value, std::string>>{
           {one_column(huge, "float64", 16, huge * 8), "truncated"},
           {one_column(huge * 8, "complex128", 16, 0), "does not hold"},
           {one_column(huge * 4, "text", 16, 8), "cannot hold"},
           {one_column(1, "int64", ~std::uint64_t{0}, 8), "truncated"},
           {one_column(1, "int64", 8, 8), "overlap"},
           {one_column(2, "int64", 16, 16), "truncated"},
           {one_column(1, "int128", 16, 8), "unknown dtype \"int128\""},
           {one_column(1, "text", 16, 8), "text"}}) {
    EXPECT_THAT(load_error(craft(column, data)), HasSubstr(expected)) << column.dump();
  }

  Bytes text = seg;  // offsets (0, 5) but only 2 bytes of text
  text.insert(text.end(), {0, 0, 0, 0, 0, 0, 0, 0, 5, 0, 0, 0, 0, 0, 0, 0, 'h', 'i'});
  EXPECT_THAT(load_error(craft(one_column(1, "text", 16, 18), text)), HasSubstr("out of range"));

  Bytes two = craft(one_column(2, "int64", 16, 16), [] {
    Bytes d{0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0};  // covers 1 item, header says 2
    d.resize(32);
    return d;
  }());
  EXPECT_THAT(load_error(two), HasSubstr("segments hold 1 items"));

  Value dup = one_column(1, "int64", 16, 8);
  dup["columns"].push_back(dup["columns"][0]);
  EXPECT_THAT(load_error(craft(dup, data)), HasSubstr("more than once"));

  Bytes big_header = craft(Value::object());
  for (int i = 0; i < 8; ++i) big_header[12 + i] = 0x7f;
  EXPECT_THAT(load_error(big_header), HasSubstr("truncated"));

  // A deeply nested header is refused without recursing.
  Bytes deep = craft(Value::object());
  deep.resize(20);
  const std::size_t depth = 200000;
  const Bytes nest(depth, 0x91);  // a list holding a list holding ...
  deep.insert(deep.end(), nest.begin(), nest.end());
  deep.push_back(0xc0);
  for (int i = 0; i < 8; ++i) deep[12 + i] = static_cast<std::uint8_t>((depth + 1) >> (8 * i));
  EXPECT_THAT(load_error(deep), HasSubstr("the header is not a mapping"));
  deep[20] = 0x81;  // {"": [[[...]]]}
  deep[21] = 0xa0;
  EXPECT_THAT(load_error(deep), HasSubstr("nested too deeply"));
}

}  // namespace
}  // namespace korvalin_client::experiment
