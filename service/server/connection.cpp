#include "service/server/connection.h"

#include "norv/log.h"

#include <sys/socket.h>

#include <algorithm>
#include <asio.hpp>
#include <span>
#include <utility>

namespace keldra {

namespace {

/// What is read of a long request at a time, beyond what it has sent already.
constexpr std::size_t FIRST_READ = std::size_t{4} * 1024;
constexpr std::size_t MOST_READ = std::size_t{64} * 1024;

IPCMessage refusalOf(const IPCMessage& request) {
    IPCMessage refusal;
    refusal.operation = request.operation;
    refusal.commandID = request.commandID;
    refusal.result = IPCMessage::RESULT_ERROR;
    return refusal;
}

std::string refusalFrame() {
    std::string payload;
    return encodeMessage(refusalOf({}), payload) ? frameHeader(payload.size()) + payload : std::string();
}

}  // namespace

ConnectionHub::ConnectionHub(asio::io_context& context, const ServerLimits& bounds, MessageServer::Answer answering)
    : io(context),
      limits(bounds),
      answer(std::move(answering)),
      refusal(refusalFrame()),
      budget(bounds.bufferedBytes) {}

Connection::Connection(std::shared_ptr<ConnectionHub> hub, Socket socket, Caller caller)
    : hub_(std::move(hub)), socket_(std::move(socket)), caller_(std::move(caller)), held_(hub_->budget) {}

/// Whatever a step throws, for want of memory for instance, costs this connection only.
template <typename Step>
void Connection::guarded(Step step) noexcept {
    try {
        step();
    } catch (const std::exception& error) {
        fail(error.what());
    }
}

/// A step for asio to take when what was begun is done.
template <typename Step>
auto Connection::then(Step step) {
    return [self = shared_from_this(), step](const asio::error_code& error, std::size_t count) {
        if (error || self->closed_) return self->close();
        self->guarded([&] { step(*self, count); });
    };
}

void Connection::limitTime(std::chrono::milliseconds time) {
    since_ = std::chrono::steady_clock::now();
    limit_ = time;
}

void Connection::close() {
    if (std::exchange(closed_, true)) return;
    asio::error_code ignored;
    socket_.close(ignored);
    forgetBody();
    ++hub_->closed;
    hub_->connections.erase(shared_from_this());
}

void Connection::refuse(std::string_view what, std::size_t number) {
    hub_->complaints.note(what, number);
    close();
}

/// Tells a client that waits for a reply, if the socket takes that much at once, and goes.
void Connection::fail(const char* what) noexcept {
    hub_->complaints.note(what, hub_->connections.size());
    if (handling_ && !closed_)
        ::send(socket_.native_handle(), hub_->refusal.data(), hub_->refusal.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    close();
}

void Connection::forgetBody() {
    decltype(body_)().swap(body_);
    held_.giveBack();
}

void Connection::readRequest() {
    guarded([this] {
        // A client that did not wait for its reply has sent the next request already.
        if (have_ >= FRAME_HEADER_SIZE) return takeFirst();
        limitTime(have_ == 0 ? hub_->limits.idleTime : hub_->limits.frameTime);
        readFirst();
    });
}

void Connection::readFirst() {
    socket_.async_read_some(asio::buffer(first_.data() + have_, first_.size() - have_),
                            then([](Connection& self, std::size_t count) {
                                if (self.have_ == 0) self.limitTime(self.hub_->limits.frameTime);
                                self.have_ += count;
                                if (self.have_ < FRAME_HEADER_SIZE) return self.readFirst();
                                self.takeFirst();
                            }));
}

/// Header and as much of the body as came with it; what lies behind belongs to the next request.
void Connection::takeFirst() {
    length_ = frameLength(std::span(first_).first<FRAME_HEADER_SIZE>());
    if (length_ == 0 || length_ > MAX_FRAME_PAYLOAD) return refuse("a frame is refused for its length", length_);
    const std::size_t count = std::min(length_, have_ - FRAME_HEADER_SIZE);
    auto* const behind = first_.begin() + FRAME_HEADER_SIZE + count;
    body_.assign(first_.begin() + FRAME_HEADER_SIZE, behind);
    std::copy(behind, first_.begin() + have_, first_.begin());
    have_ -= FRAME_HEADER_SIZE + count;
    if (body_.size() < length_) return readBody();
    handle();
}

/// Takes memory only in step with what has arrived, whatever length was announced.
void Connection::readBody() {
    const std::size_t have = body_.size();
    const std::size_t want = std::min(length_ - have, std::clamp(have, FIRST_READ, MOST_READ));
    if (!held_.take(want)) return refuse("too much is being received at once, no room for", want);
    body_.resize(have + want);
    asio::async_read(socket_, asio::buffer(body_.data() + have, want), then([](Connection& self, std::size_t) {
                         if (self.body_.size() < self.length_) return self.readBody();
                         self.handle();
                     }));
}

void Connection::handle() {
    IPCMessage request;
    if (!decodeMessage(body_, request)) return refuse("what came is not a message, bytes", body_.size());
    forgetBody();
    handling_ = true;
    hub_->answer(std::move(request), caller_,
                 [self = shared_from_this()](Answered answered) { self->deliver(std::move(answered)); });
}

/// From whichever thread has the reply; the bytes are made there.
void Connection::deliver(Answered answered) noexcept try {
    std::string payload;
    if (!encodeMessage(answered.reply, payload)) encodeMessage(refusalOf(answered.reply), payload);
    auto hand = [self = shared_from_this(), payload = std::move(payload), caller = std::move(answered.caller)] {
        self->guarded([&] {
            if (self->closed_) return;
            if (caller) self->caller_ = *caller;
            self->send(payload);
        });
    };
    asio::dispatch(hub_->io, std::move(hand));
} catch (...) {
    // The next look for connections whose time is up finds it.
    lost_ = true;
}

void Connection::send(const std::string& payload) {
    if (payload.empty() || !held_.take(payload.size())) return refuse("a reply cannot be sent, bytes", payload.size());
    limitTime(hub_->limits.frameTime);
    const std::string header = frameHeader(payload.size());
    body_.reserve(header.size() + payload.size());
    body_.assign(header.begin(), header.end());
    body_.insert(body_.end(), payload.begin(), payload.end());
    asio::async_write(socket_, asio::buffer(body_), then([](Connection& self, std::size_t) {
                          self.forgetBody();
                          self.readRequest();
                      }));
    // From here on its time runs.
    handling_ = false;
}

}  // namespace keldra
