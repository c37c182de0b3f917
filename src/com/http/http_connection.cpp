// The HTTP transport: one request to the server over libcurl, on a connection kept alive in a
// pool, with a read tried again when its connection fails.
//
// Each pooled easy handle keeps its own connection alive, so a thread that takes a handle back
// from the pool sends on the connection it used before. A transfer is bounded by a connect
// timeout and a stall timeout (no byte moved for that long), never by a total time, so a long
// download goes on as long as it moves. An answer's body is received into one buffer reserved
// from its Content-Length and refused, before it is received, when it is over its bound.
//
// A write is sent once. The one resend is libcurl's own: when a connection it reuses closes
// before a byte of answer arrives, it sends the request again, once, on a new connection. That
// is the server having closed the connection while it was idle; a server that read the request
// and died would have to be back within that instant for the write to be applied twice.
//
// The address is checked once, on the host as libcurl itself parses it: plain http is for this
// machine (or allowed explicitly), and a loopback address is never reached through a proxy, which
// would carry the token off the machine. An https server's certificate is verified, peer and
// host name, on every new connection.
#include <arpa/inet.h>
#include <curl/curl.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstring>
#include <mutex>
#include <new>
#include <optional>
#include <utility>
#include <vector>

#include "../../utils/huge_pages.hpp"
#include "http_transport.hpp"
#include "korvalin_client/utils/env.hpp"
#include "korvalin_client/utils/errors.hpp"

namespace korvalin_client::com::http {
namespace {

constexpr double kMaxRetryPause = 8;

void init_curl() {
  // A function-local static is initialised once, whichever thread gets here first.
  static const CURLcode code = curl_global_init(CURL_GLOBAL_DEFAULT);
  if (code != CURLE_OK) {
    throw RuntimeError(std::string("cannot initialise libcurl: ") + curl_easy_strerror(code));
  }
}

// The connection failed: nothing, or not all, of the exchange went through.
bool connection_failed(CURLcode code) {
  switch (code) {
    case CURLE_COULDNT_RESOLVE_PROXY:
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_CONNECT:
    case CURLE_OPERATION_TIMEDOUT:
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
    case CURLE_GOT_NOTHING:
    case CURLE_PARTIAL_FILE:
    case CURLE_SSL_CONNECT_ERROR:
      return true;
    default:
      return false;
  }
}

// No connection was made, so the request was never sent.
bool never_sent(CURLcode code) {
  return code == CURLE_COULDNT_RESOLVE_PROXY || code == CURLE_COULDNT_RESOLVE_HOST ||
         code == CURLE_COULDNT_CONNECT;
}

// The server's certificate was refused, or the CAs to check it with could not be loaded.
bool certificate_refused(CURLcode code) {
  return code == CURLE_PEER_FAILED_VERIFICATION || code == CURLE_SSL_ISSUER_ERROR ||
         code == CURLE_SSL_CACERT_BADFILE;
}

std::string lower(std::string_view s) {
  std::string out(s);
  for (char& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return out;
}

std::string_view trim(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  while (!s.empty() &&
         (s.back() == ' ' || s.back() == '\t' || s.back() == '\r' || s.back() == '\n')) {
    s.remove_suffix(1);
  }
  return s;
}

// What one attempt received: the head as it arrives, then the body.
struct Receiver {
  bool raw_answer = false;
  long status = 0;
  std::string content_type{};
  std::optional<std::uint64_t> content_length{};
  Bytes body{};
  bool too_large = false;
  // While a large body arrives, its buffer's pages are faulted in ahead of it.
  std::unique_ptr<utils::FaultAhead> fault_ahead{};

  std::uint64_t limit() const {
    const bool raw = status / 100 == 2 && (raw_answer || content_type == kBytesType);
    return raw ? kMaxRawAnswer : kMaxEncodedAnswer;
  }
};

std::size_t on_header(char* data, std::size_t size, std::size_t count, void* user) {
  auto& r = *static_cast<Receiver*>(user);
  const std::size_t total = size * count;
  const std::string_view line = trim(std::string_view(data, total));
  if (line.starts_with("HTTP/")) {  // a new answer begins (after an interim one, say)
    r.status = 0;
    r.content_type.clear();
    r.content_length.reset();
    const std::size_t space = line.find(' ');
    if (space != std::string_view::npos) {
      std::from_chars(line.data() + space + 1, line.data() + line.size(), r.status);
    }
    return total;
  }
  if (line.empty()) {  // the head is complete
    if (r.content_length && *r.content_length > r.limit()) {
      r.too_large = true;
      return 0;
    }
    return total;
  }
  const std::size_t colon = line.find(':');
  if (colon == std::string_view::npos) return total;
  const std::string name = lower(line.substr(0, colon));
  const std::string_view value = trim(line.substr(colon + 1));
  if (name == "content-type") {
    r.content_type = lower(trim(value.substr(0, value.find(';'))));
  } else if (name == "content-length") {
    std::uint64_t n = 0;
    const auto [end, ec] = std::from_chars(value.data(), value.data() + value.size(), n);
    if (ec == std::errc() && end == value.data() + value.size()) r.content_length = n;
  }
  return total;
}

constexpr long kReceiveBuffer = 512L << 10;
// Bodies from this size up have their pages faulted in on another thread as they arrive.
constexpr std::size_t kFaultAhead = std::size_t{64} << 20;

std::size_t on_body(char* data, std::size_t size, std::size_t count, void* user) {
  auto& r = *static_cast<Receiver*>(user);
  const std::size_t total = size * count;
  if (r.body.size() + total > r.limit()) {
    r.too_large = true;
    return 0;  // ends the transfer
  }
  if (r.body.empty() && r.content_length) {
    r.body.reserve(*r.content_length);
    utils::advise_huge_pages(r.body.data(), r.body.capacity());
    if (r.body.capacity() >= kFaultAhead) {
      r.fault_ahead = std::make_unique<utils::FaultAhead>(r.body.data(), r.body.capacity());
    }
  }
  r.body.insert(r.body.end(), data, data + total);
  return total;
}

// A user's interruption (korvalin_client::request_interrupt) ends a transfer within a second.
int on_progress(void*, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
  return interrupt_requested() ? 1 : 0;
}

class HeaderList {
 public:
  HeaderList() = default;
  HeaderList(const HeaderList&) = delete;
  HeaderList& operator=(const HeaderList&) = delete;
  ~HeaderList() { curl_slist_free_all(list_); }
  void add(const std::string& line) {
    curl_slist* next = curl_slist_append(list_, line.c_str());
    if (next == nullptr) throw std::bad_alloc();
    list_ = next;
  }
  curl_slist* get() const { return list_; }

 private:
  curl_slist* list_ = nullptr;
};

// The base address without the user:password@ a URL may carry.
std::string without_credentials(const std::string& url) {
  const std::size_t host = url.find("://") + 3;
  const std::size_t end = std::min(url.find('/', host), url.size());
  const std::size_t at = url.rfind('@', end - 1);
  if (at == std::string::npos || at < host) return url;
  return url.substr(0, host) + url.substr(at + 1);
}

// The host `url` names as libcurl reads it, so that what is checked is what libcurl connects
// to, whatever user name precedes an "@" or whatever name merely begins like an address.
std::string host_of(const std::string& url, const std::string& shown) {
  const std::unique_ptr<CURLU, decltype(&curl_url_cleanup)> parsed(curl_url(), curl_url_cleanup);
  if (!parsed) throw std::bad_alloc();
  char* host = nullptr;
  CURLUcode code = curl_url_set(parsed.get(), CURLUPART_URL, url.c_str(), 0);
  if (code == CURLUE_OK) code = curl_url_get(parsed.get(), CURLUPART_HOST, &host, 0);
  if (code != CURLUE_OK) {
    throw ValueError("the service URL \"" + shown +
                     "\" cannot be read: " + curl_url_strerror(code));
  }
  std::string out(host);
  curl_free(host);
  return out;
}

// 127.0.0.0/8, ::1 (a URL's host writes it "[::1]") or "localhost", which libcurl resolves to
// those itself, never through a name server.
bool is_loopback(const std::string& host) {
  if (lower(host) == "localhost") return true;
  in_addr v4{};
  if (inet_pton(AF_INET, host.c_str(), &v4) == 1) return ntohl(v4.s_addr) >> 24 == 127;
  in6_addr v6{};
  return host.size() > 2 && host.front() == '[' && host.back() == ']' &&
         inet_pton(AF_INET6, host.substr(1, host.size() - 2).c_str(), &v6) == 1 &&
         IN6_IS_ADDR_LOOPBACK(&v6);
}

// A RuntimeError naming `path` unless it is a file this process can open for reading.
void check_ca_file(const std::string& path) {
  int error = 0;
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) {
    error = errno;
  } else {
    struct stat st {};
    if (::fstat(fd, &st) == 0 && S_ISDIR(st.st_mode)) error = EISDIR;
    ::close(fd);
  }
  if (error != 0) {
    throw RuntimeError("cannot read the CA file \"" + path +
                       "\" (KORVALIN_CA_FILE): " + std::strerror(error));
  }
}

}  // namespace

// Idle easy handles, each with its kept-alive connection. A call takes one (or a new one) and
// gives it back, reset to default options but keeping its connection.
class Transport::Pool {
 public:
  Pool() = default;
  Pool(const Pool&) = delete;
  Pool& operator=(const Pool&) = delete;
  ~Pool() {
    for (CURL* handle : idle_) curl_easy_cleanup(handle);
  }

  CURL* take() {
    {
      std::lock_guard lock(mutex_);
      if (!idle_.empty()) {
        CURL* handle = idle_.back();
        idle_.pop_back();
        return handle;
      }
    }
    CURL* handle = curl_easy_init();
    if (handle == nullptr) throw RuntimeError("cannot start an HTTP connection (libcurl)");
    return handle;
  }

  void give(CURL* handle) noexcept {
    curl_easy_reset(handle);
    try {
      std::lock_guard lock(mutex_);
      idle_.push_back(handle);
    } catch (...) {
      curl_easy_cleanup(handle);
    }
  }

 private:
  std::mutex mutex_;
  std::vector<CURL*> idle_;
};

struct Transport::Attempt {
  CURLcode code = CURLE_OK;
  std::string error;  // libcurl's account of a failure
  Response response;
};

Transport::Transport(std::string url, std::string token, HttpOptions options)
    : url_(std::move(url)), token_(std::move(token)), options_(options) {
  const std::string scheme = lower(url_.substr(0, url_.find("://") + 3));
  if (scheme != "http://" && scheme != "https://") {
    throw ValueError("the service URL must begin with http:// or https://, not \"" +
                     without_credentials(url_).substr(0, 80) + "\"");
  }
  while (url_.size() > scheme.size() && url_.back() == '/') url_.pop_back();
  shown_url_ = without_credentials(url_);
  protocol_ = scheme == "https://" ? "https" : "http";
  loopback_ = is_loopback(host_of(url_, shown_url_.substr(0, 80)));
  if (protocol_ == "http" && !loopback_ && !options_.allow_insecure) {
    throw ValueError("the service at " + shown_url_ +
                     " is not on this machine, and http:// would carry the token and all data "
                     "across the network in clear: use https://, or set "
                     "KORVALIN_ALLOW_INSECURE=1 to allow it");
  }
  if (!options_.ca_file.empty()) check_ca_file(options_.ca_file);
  if (std::any_of(token_.begin(), token_.end(),
                  [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; })) {
    throw ValueError("the token must not contain control characters or line breaks");
  }
  authorization_ = "Authorization: Bearer " + token_;
  init_curl();
  pool_ = std::make_unique<Pool>();
}

Transport::~Transport() = default;

Transport::Attempt Transport::attempt(const Request& request) {
  struct Lease {
    Pool& pool;
    CURL* handle;
    ~Lease() { pool.give(handle); }
  } lease{*pool_, pool_->take()};
  CURL* h = lease.handle;

  HeaderList headers;
  headers.add(authorization_);
  headers.add("Accept: " + std::string(kMsgpackType));
  if (!request.content_type.empty()) {
    headers.add("Content-Type: " + std::string(request.content_type));
  }
  headers.add("Expect:");  // send a body at once, without waiting for "100 Continue"

  Receiver receiver{.raw_answer = request.raw_answer};
  char error[CURL_ERROR_SIZE] = {};
  const std::string url = url_ + request.target;
  const auto whole_seconds = [](double s) {
    return static_cast<long>(std::ceil(std::max(s, 1.0)));
  };

  curl_easy_setopt(h, CURLOPT_URL, url.c_str());
  curl_easy_setopt(h, CURLOPT_PROTOCOLS_STR, protocol_.c_str());
  curl_easy_setopt(h, CURLOPT_SSL_VERIFYPEER, 1L);
  curl_easy_setopt(h, CURLOPT_SSL_VERIFYHOST, 2L);
  if (!options_.ca_file.empty()) curl_easy_setopt(h, CURLOPT_CAINFO, options_.ca_file.c_str());
  if (loopback_) curl_easy_setopt(h, CURLOPT_PROXY, "");  // not even one set in the environment
  curl_easy_setopt(h, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
  curl_easy_setopt(h, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(h, CURLOPT_TCP_NODELAY, 1L);
  curl_easy_setopt(h, CURLOPT_TCP_KEEPALIVE, 1L);
  // Large answers (a merged result) arrive in reads of this size: libcurl's default of 16 KiB
  // costs a system call and a poll per 16 KiB, a third of a 1 GiB pull's time.
  curl_easy_setopt(h, CURLOPT_BUFFERSIZE, kReceiveBuffer);
  if (options_.connect_timeout > 0) {
    curl_easy_setopt(h, CURLOPT_CONNECTTIMEOUT_MS,
                     static_cast<long>(std::ceil(options_.connect_timeout * 1000)));
  }
  if (options_.stall_timeout > 0) {
    curl_easy_setopt(h, CURLOPT_LOW_SPEED_LIMIT, 1L);
    curl_easy_setopt(h, CURLOPT_LOW_SPEED_TIME, whole_seconds(options_.stall_timeout));
  }
  curl_easy_setopt(h, CURLOPT_HTTPHEADER, headers.get());
  curl_easy_setopt(h, CURLOPT_HEADERFUNCTION, on_header);
  curl_easy_setopt(h, CURLOPT_HEADERDATA, &receiver);
  curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, on_body);
  curl_easy_setopt(h, CURLOPT_WRITEDATA, &receiver);
  curl_easy_setopt(h, CURLOPT_NOPROGRESS, 0L);
  curl_easy_setopt(h, CURLOPT_XFERINFOFUNCTION, on_progress);
  curl_easy_setopt(h, CURLOPT_ERRORBUFFER, error);
  if (std::string_view(request.method) == "GET") {
    curl_easy_setopt(h, CURLOPT_HTTPGET, 1L);
  } else {
    // The body is sent from the caller's buffer (POSTFIELDS does not copy it).
    static const char kEmpty[] = "";
    curl_easy_setopt(h, CURLOPT_POST, 1L);
    curl_easy_setopt(
        h, CURLOPT_POSTFIELDS,
        request.body.empty() ? kEmpty : reinterpret_cast<const char*>(request.body.data()));
    curl_easy_setopt(h, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.body.size()));
    if (std::string_view(request.method) != "POST") {
      curl_easy_setopt(h, CURLOPT_CUSTOMREQUEST, request.method);
    }
  }

  Attempt result;
  result.code = curl_easy_perform(h);
  receiver.fault_ahead.reset();
  if (result.code == CURLE_ABORTED_BY_CALLBACK) throw Interrupted{};
  if (receiver.too_large) {
    throw RuntimeError("the service's answer to " + std::string(request.method) + " " +
                       request.target.substr(0, request.target.find('?')) +
                       " is too large: more than " + std::to_string(receiver.limit()) + " bytes");
  }
  if (result.code != CURLE_OK) {
    result.error = error[0] != '\0' ? error : curl_easy_strerror(result.code);
    return result;
  }
  curl_easy_getinfo(h, CURLINFO_RESPONSE_CODE, &result.response.status);
  result.response.content_type = std::move(receiver.content_type);
  result.response.body = std::move(receiver.body);
  return result;
}

Response Transport::send(const Request& request) {
  const std::string what =
      std::string(request.method) + " " + request.target.substr(0, request.target.find('?'));
  const int tries = request.read ? std::max(1, options_.read_attempts) : 1;
  double pause = options_.retry_pause;
  for (int tried = 1;; ++tried) {
    Attempt outcome = attempt(request);
    if (outcome.code == CURLE_OK) {
      if (outcome.response.status / 100 == 2) return std::move(outcome.response);
      throw_error_answer(std::move(outcome.response), what, token_);
    }
    if (certificate_refused(outcome.code)) {
      const bool own_ca = !options_.ca_file.empty();
      throw RuntimeError(
          "the certificate of the service at " + shown_url_ + " could not be verified against " +
          (own_ca ? "the CA file \"" + options_.ca_file + "\"" : std::string("the system's CAs")) +
          " (" + what + " was not sent): " + outcome.error +
          (own_ca ? "; KORVALIN_CA_FILE must hold the certificate of the CA that issued the "
                    "server's certificate, and that must be for the host of the address"
                  : "; if a CA of your own issued it, set KORVALIN_CA_FILE to that CA's "
                    "certificate (a PEM file)"));
    }
    if (!connection_failed(outcome.code)) {
      throw RuntimeError(what + " to the service at " + shown_url_ + " failed: " + outcome.error);
    }
    if (!request.read) {
      if (never_sent(outcome.code)) {
        throw RuntimeError("cannot reach the service at " + shown_url_ + " (" + what +
                           " was not sent): " + outcome.error);
      }
      throw RuntimeError("the connection to the service at " + shown_url_ + " failed during " +
                         what + ", which may or may not have been applied: " + outcome.error);
    }
    if (tried >= tries) {
      throw RuntimeError("cannot reach the service at " + shown_url_ + " (" + what + ", " +
                         std::to_string(tries) + (tries == 1 ? " try" : " tries") +
                         "): " + outcome.error);
    }
    env().sleep(pause);
    pause = std::min(pause * 2, std::max(kMaxRetryPause, options_.retry_pause));
  }
}

}  // namespace korvalin_client::com::http
