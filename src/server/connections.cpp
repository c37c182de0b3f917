#include "connections.hpp"

namespace korvalin_client::server {

using Clock = std::chrono::steady_clock;

void Tracked::close() {
  if (waiting) waiting->cancel();
  if (socket) {
    boost::system::error_code ignored;
    socket->shutdown(tcp::socket::shutdown_both, ignored);
    socket->close(ignored);
  }
}

Connections::Connections(int max_total, int max_per_address)
    : max_total_(max_total), max_per_address_(max_per_address) {}

std::shared_ptr<Tracked> Connections::admit(asio::any_io_executor executor,
                                            const std::string& address) {
  std::lock_guard lock(mutex_);
  int& count = per_address_[address];
  if (count >= max_per_address_ || static_cast<int>(all_.size()) >= max_total_) {
    if (count == 0) per_address_.erase(address);
    return nullptr;
  }
  ++count;
  all_.push_back(std::make_shared<Tracked>(std::move(executor), address));
  return all_.back();
}

void Connections::leave(const std::shared_ptr<Tracked>& tracked) {
  std::function<void()> done;
  {
    std::lock_guard lock(mutex_);
    all_.remove(tracked);
    if (const auto it = per_address_.find(tracked->address);
        it != per_address_.end() && --it->second <= 0) {
      per_address_.erase(it);
    }
    if (all_.empty()) done = std::move(when_empty_);
  }
  if (done) done();
}

bool Connections::empty() {
  std::lock_guard lock(mutex_);
  return all_.empty();
}

void Connections::close(bool everyone) {
  std::lock_guard lock(mutex_);
  for (const std::shared_ptr<Tracked>& t : all_) {
    asio::post(t->executor, [t, everyone] {
      if (everyone || t->idle) t->close();
    });
  }
}

void Connections::sweep() {
  const Clock::rep now = Clock::now().time_since_epoch().count();
  std::lock_guard lock(mutex_);
  for (const std::shared_ptr<Tracked>& t : all_) {
    if (t->deadline.load() > now) continue;
    const std::uint64_t generation = t->generation.load();
    asio::post(t->executor, [t, generation] {
      // Still the deadline that passed, and still passed: not one set since.
      if (t->expired || !t->socket || t->generation.load() != generation ||
          t->deadline.load() > Clock::now().time_since_epoch().count()) {
        return;
      }
      t->expired = true;
      boost::system::error_code ignored;
      t->socket->cancel(ignored);
    });
  }
}

void Connections::when_empty(std::function<void()> done) {
  {
    std::lock_guard lock(mutex_);
    if (!all_.empty()) {
      when_empty_ = std::move(done);
      return;
    }
  }
  done();
}

}  // namespace korvalin_client::server
