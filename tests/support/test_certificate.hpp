// TLS files for tests: a CA of the test's own and a certificate it issued for 127.0.0.1, made
// with the openssl program; and environment variables set for the length of a test.
#pragma once

#include <unistd.h>

#include <cstdlib>
#include <optional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "support/child_process.hpp"

namespace korvalin_client::testing {

// The path of program `name` on $PATH, or "" (ChildProcess starts a program by its path).
inline std::string on_path(const std::string& name) {
  std::istringstream path(std::getenv("PATH") ? std::getenv("PATH") : "");
  for (std::string dir; std::getline(path, dir, ':');) {
    if (!dir.empty() && ::access((dir + "/" + name).c_str(), X_OK) == 0) return dir + "/" + name;
  }
  return "";
}

struct TestCertificate {
  std::string ca;     // the CA's certificate (PEM), what a client trusts
  std::string cert;   // the server's certificate, for IP 127.0.0.1 only
  std::string key;    // its private key
  std::string error;  // why they could not be made, or empty
};

// Makes the files in `dir` with the openssl program.
inline TestCertificate make_test_certificate(const std::string& dir) {
  TestCertificate files{dir + "/ca.pem", dir + "/cert.pem", dir + "/key.pem", ""};
  const std::string openssl = on_path("openssl");
  if (openssl.empty()) {
    files.error = "the openssl program is not installed";
    return files;
  }
  const auto run = [&](std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {openssl, "req", "-x509", "-newkey", "ec", "-pkeyopt",
                                         "ec_paramgen_curve:P-256", "-nodes", "-days", "2"});
    ChildProcess child(std::move(arguments), dir + "/openssl.log");
    if (child.wait(std::chrono::seconds(60)) != 0 && files.error.empty()) {
      files.error = child.output();
    }
  };
  run({"-subj", "/CN=test CA", "-keyout", dir + "/ca.key", "-out", files.ca});
  run({"-subj", "/CN=test server", "-addext", "basicConstraints=critical,CA:FALSE", "-addext",
       "subjectAltName=IP:127.0.0.1", "-CA", files.ca, "-CAkey", dir + "/ca.key", "-keyout",
       files.key, "-out", files.cert});
  return files;
}

// Sets (a value) or unsets (nullopt) environment variables until its end.
class ScopedEnvironment {
 public:
  using Setting = std::pair<const char*, std::optional<std::string>>;
  explicit ScopedEnvironment(std::initializer_list<Setting> settings) {
    for (const auto& [name, value] : settings) set(name, value);
  }
  ~ScopedEnvironment() {
    for (auto it = saved_.rbegin(); it != saved_.rend(); ++it) put(it->first, it->second);
  }
  ScopedEnvironment(const ScopedEnvironment&) = delete;
  ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;

  void set(const char* name, const std::optional<std::string>& value) {
    const char* old = std::getenv(name);
    saved_.emplace_back(name, old ? std::optional<std::string>(old) : std::nullopt);
    put(name, value);
  }

 private:
  static void put(const std::string& name, const std::optional<std::string>& value) {
    value ? ::setenv(name.c_str(), value->c_str(), 1) : ::unsetenv(name.c_str());
  }
  std::vector<std::pair<std::string, std::optional<std::string>>> saved_;
};

}  // namespace korvalin_client::testing
