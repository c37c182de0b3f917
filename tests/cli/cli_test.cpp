// The korvalin program as a user runs it: real processes on a fresh store, standard output and
// error read apart (--json must leave nothing but the document on standard output), and a
// pseudo-terminal where the program should behave as on a user's terminal.
#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <stb_image_write.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "korvalin_client/service/embedded_backend.hpp"
#include "support/child_process.hpp"
#include "support/testing.hpp"

using kc::testing::ChildProcess;
using std::chrono::seconds;

namespace {

struct Ran {
  int code;
  std::string out;
  std::string err;
  Value json() const { return Value::parse(out); }  // throws unless stdout is one JSON document
};

// Replaces the forked test by the program, its standard streams already in place.
[[noreturn]] void exec_program(std::vector<std::string> args) {
  args.insert(args.begin(), KORVALIN_PROGRAM);
  std::vector<char*> argv;
  for (auto& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  ::execv(argv[0], argv.data());
  ::_exit(127);
}

std::string read_file(const std::string& path) {
  std::stringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

bool contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

// A pseudo-terminal: the program gets the slave side as its controlling terminal and all three
// standard streams; the test reads and types on the master side.
class Terminal {
 public:
  Terminal() {
    if (::openpty(&master_, &slave_, nullptr, nullptr, nullptr) != 0)
      throw std::runtime_error("openpty");
    ::fcntl(master_, F_SETFL, ::fcntl(master_, F_GETFL) | O_NONBLOCK);
  }
  ~Terminal() { ::close(master_); }

  std::unique_ptr<ChildProcess> start(std::vector<std::string> args) {
    auto child = std::make_unique<ChildProcess>([&](ChildProcess&) {
      ::setsid();
      ::ioctl(slave_, TIOCSCTTY, 0);
      for (int fd : {0, 1, 2}) ::dup2(slave_, fd);
      ::close(master_);
      exec_program(args);
      return false;
    });
    ::close(slave_);
    return child;
  }
  // Everything the program wrote so far.
  const std::string& text() {
    char buffer[4096];
    ssize_t n;
    while ((n = ::read(master_, buffer, sizeof buffer)) > 0) text_.append(buffer, n);
    return text_;
  }
  void type(const std::string& keys) {
    ASSERT_EQ(::write(master_, keys.data(), keys.size()), ssize_t(keys.size()));
  }

 private:
  int master_ = -1;
  int slave_ = -1;
  std::string text_;
};

class Cli : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const char* name :
         {"KORVALIN_SERVICE_URL", "KORVALIN_TOKEN", "KORVALIN_GROUP", "KORVALIN_SPACE"}) {
      ::unsetenv(name);
    }
  }

  // Runs the program to its end with no terminal: standard input empty, output and errors apart.
  Ran run(std::vector<std::string> args) {
    const std::string out = root_.path() + "/stdout", err = root_.path() + "/stderr";
    ChildProcess p([&](ChildProcess&) {
      const int in = ::open("/dev/null", O_RDONLY);
      const int o = ::open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
      const int e = ::open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
      ::dup2(in, 0), ::dup2(o, 1), ::dup2(e, 2);
      exec_program(args);
      return false;
    });
    const int code = p.wait(seconds(120));
    return {code, read_file(out), read_file(err)};
  }

  // A successful --json run's document.
  Value json(std::vector<std::string> args) {
    args.push_back("--json");
    const Ran r = run(args);
    EXPECT_EQ(r.code, 0) << args[0] << " " << args[1] << ": " << r.err;
    return r.json();
  }

  bool file_named(const std::string& name) {
    for (const auto& entry : std::filesystem::recursive_directory_iterator(root_.path())) {
      if (entry.path().filename() == name) return true;
    }
    return false;
  }

  kc::testing::TempCacheRoot root_;
};

TEST_F(Cli, AScriptedSessionThroughJson) {
  EXPECT_EQ(json({"groups", "create", "lab"})["device_group_name"], "lab");
  EXPECT_EQ(json({"groups", "list"})["list"][0]["device_group_name"], "lab");
  EXPECT_EQ(json({"spaces", "list", "-g", "lab"})["list"][0]["space_name"], "origin");

  // Values are JSON where they read as JSON, text otherwise; keys get their leading "/".
  json({"params", "set", "-g", "lab", "q0/amp=0.5", "q0/name=abc", "q0/list=[1,2]", "q0/on=true"});
  EXPECT_EQ(
      json({"params", "get", "-g", "lab", "/q0/amp", "q0/name", "q0/list", "q0/on"}),
      Value::parse(R"({"/q0/amp": 0.5, "/q0/name": "abc", "/q0/list": [1, 2], "/q0/on": true})"));
  json({"params", "submit", "-g", "lab", "q0/amp=0.25", "--experiment", "7"});
  const Value history = json({"params", "history", "-g", "lab", "/q0/amp"});
  EXPECT_EQ(history["total"], 2);
  EXPECT_EQ(history["list"][0]["v"], "0.25");
  EXPECT_EQ(history["list"][0]["experiment_id"], 7);

  const Value submitted =
      json({"exp", "submit", "-g", "lab", "--title", "rabi", "--sweep", "q0/drive/amp=0:1:11",
            "--sweep", "n=1:3:3", "--measure", "I,Q", "--folder", "cal/rabi"});
  EXPECT_EQ(submitted["items"], 33);
  const std::string id = std::to_string(submitted["exp_id"].get<std::int64_t>());

  const Value pulled = json({"exp", "pull", id});  // waits for the end
  EXPECT_EQ(pulled["status"], "complete");
  EXPECT_EQ(pulled["items"], 33);
  EXPECT_EQ(pulled["columns"], Value::parse(R"(["/q0/drive/amp", "/n", "I", "Q"])"));
  EXPECT_TRUE(std::filesystem::exists(pulled["file"].get<std::string>()));

  EXPECT_EQ(json({"exp", "status", id})["status"], "complete");
  EXPECT_EQ(json({"exp", "list", "-g", "lab"})["list"][0]["exp_id"].dump(), id);
  bool said_complete = false;
  for (const Value& m : json({"exp", "msg", id}))
    said_complete |= contains(m["message"].get<std::string>(), "complete");
  EXPECT_TRUE(said_complete);

  const std::string csv = root_.path() + "/rabi.csv";
  const Ran exported = run({"exp", "export", id, "--format", "csv", "-o", csv});
  ASSERT_EQ(exported.code, 0) << exported.err;
  std::istringstream lines(read_file(csv));
  std::string header, line;
  std::getline(lines, header);
  EXPECT_THAT(header, ::testing::MatchesRegex("item_id,/q0/drive/amp,/n,I,Q\r?"));
  int rows = 0;
  while (std::getline(lines, line)) ++rows;
  EXPECT_EQ(rows, 33);

  // A fit that another program on the same store recorded is what exp fit shows.
  EXPECT_TRUE(json({"exp", "fit", id}).is_null());
  {
    kc::testing::ScopedBackend<kc::service::EmbeddedBackend> backend(
        std::make_shared<kc::service::EmbeddedBackend>());
    kc::group::CloudGroup group("lab", "origin");
    const std::string table = root_.path() + "/table.json";
    std::ofstream(table) << R"({"columns": [{"name": "pi_amp", "type": "float64", "values": [0.42]}]})";
    const std::string img = root_.path() + "/fit.png";
    std::vector<unsigned char> px(32 * 24 * 3, 90);
    ASSERT_TRUE(stbi_write_png(img.c_str(), 32, 24, 3, px.data(), 32 * 3));
    group.submit_fitting_result(*group.space_id, std::stoll(id), img, {.table_file = table});
  }
  const Value fit = json({"exp", "fit", id});
  EXPECT_EQ(fit["fitting_result"]["columns"][0]["values"][0], 0.42);
  EXPECT_TRUE(fit["big_img_id"].is_number_integer());
  const Ran shown = run({"exp", "fit", id});
  EXPECT_TRUE(contains(shown.out, "pi_amp") && contains(shown.out, "0.42")) << shown.out;
}

TEST_F(Cli, UsageErrorsErrorsHelpAndVersion) {
  const Ran unknown = run({"frobnicate"});
  EXPECT_EQ(unknown.code, 2);
  EXPECT_TRUE(contains(unknown.err, "unknown command \"frobnicate\"")) << unknown.err;
  EXPECT_EQ(run({"groups", "list", "--bogus"}).code, 2);
  EXPECT_EQ(run({"exp"}).code, 2);
  EXPECT_EQ(run({}).code, 2);
  EXPECT_EQ(run({"exp", "pull", "twelve"}).code, 2);
  // Malformed arguments are refused before the service is asked anything (there is no group).
  for (const char* sweep : {"amp=0:1", "amp=0:1:0", "amp=a:1:3", "=0:1:3", "amp=[1,"}) {
    const Ran r =
        run({"exp", "submit", "-g", "none", "--title", "t", "--sweep", sweep, "--measure", "I"});
    EXPECT_EQ(r.code, 2) << sweep;
    EXPECT_TRUE(contains(r.err, "--sweep")) << r.err;
  }
  EXPECT_EQ(run({"params", "set", "-g", "none", "no_value"}).code, 2);

  const Ran missing = run({"exp", "pull", "4242"});
  EXPECT_EQ(missing.code, 1);
  EXPECT_TRUE(contains(missing.err, "4242")) << missing.err;
  EXPECT_TRUE(missing.out.empty());
  const Ran no_file =
      run({"exp", "submit", "-g", "none", "--file", root_.path() + "/nowhere.json"});
  EXPECT_EQ(no_file.code, 1);
  EXPECT_TRUE(contains(no_file.err, "nowhere.json")) << no_file.err;

  const Ran version = run({"--version"});
  EXPECT_EQ(version.code, 0);
  EXPECT_EQ(version.out.rfind("korvalin ", 0), 0u) << version.out;
  const Ran help = run({"--help"});
  EXPECT_EQ(help.code, 0);
  for (const char* command : {"groups", "spaces", "params", "exp", "demo", "serve", "admin"}) {
    EXPECT_TRUE(contains(help.out, std::string("\n  ") + command + " ")) << command;
  }
  EXPECT_TRUE(contains(run({"exp", "pull", "--help"}).out, "--no-wait"));
}

TEST_F(Cli, APullOnATerminalShowsProgressAndStopsCleanlyOnCtrlC) {
  ASSERT_EQ(run({"groups", "create", "lab"}).code, 0);
  // 200,000 points: the embedded device measures a few hundred a second, so this one runs on
  // for as long as the test needs it.
  const std::string id = json({"exp", "submit", "-g", "lab", "--title", "long", "--sweep",
                               "x=0:1:200000", "--measure", "I"})["exp_id"]
                             .dump();
  Terminal terminal;
  auto pull = terminal.start({"exp", "pull", id});
  ASSERT_TRUE(
      kc::testing::wait_until([&] { return contains(terminal.text(), "items/s"); }, seconds(60)))
      << terminal.text();
  const std::string bar = terminal.text();
  EXPECT_TRUE(contains(bar, "\r\033[Kexp " + id + " [")) << bar;  // redrawn in place
  EXPECT_TRUE(contains(bar, "/200000 items, running")) << bar;

  pull->kill(SIGINT);
  EXPECT_EQ(pull->wait(seconds(30)), 130);
  const std::string& text = terminal.text();
  const auto said = text.find("korvalin: interrupted");
  ASSERT_NE(said, std::string::npos) << text;
  EXPECT_EQ(text[said - 1], '\n') << text;  // the bar's line was ended first
  EXPECT_FALSE(file_named("complete_" + id + ".kvres"));
}

TEST_F(Cli, TheDemoCreatesItsGroupAndAsksFirstOnATerminal) {
  const Ran demo = run({"demo", "--group", "fresh", "--points", "5"});
  EXPECT_EQ(demo.code, 0) << demo.err;
  EXPECT_TRUE(contains(demo.out, "Created device group \"fresh\"")) << demo.out;
  EXPECT_TRUE(contains(demo.out, "Result: 5 items")) << demo.out;

  Terminal terminal;
  auto asked = terminal.start({"demo", "--group", "other"});
  ASSERT_TRUE(kc::testing::wait_until(
      [&] { return contains(terminal.text(), "Create device group \"other\"? [y/N]"); },
      seconds(60)))
      << terminal.text();
  terminal.type("n\n");
  EXPECT_EQ(asked->wait(seconds(60)), 1);
  EXPECT_TRUE(
      kc::testing::wait_until([&] { return contains(terminal.text(), "--yes"); }, seconds(10)))
      << terminal.text();
  EXPECT_EQ(json({"groups", "list"})["total"], 1);
}

}  // namespace
