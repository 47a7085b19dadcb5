#pragma once

#include "norv/message_codec.h"
#include "service/server/byte_budget.h"
#include "service/server/caller.h"
#include "service/server/complaints.h"
#include "service/server/message_server.h"
#include "service/server/page_allocator.h"

#include <array>
#include <asio/io_context.hpp>
#include <asio/local/stream_protocol.hpp>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace keldra {

class Connection;

/// What the connections of a server share. Used on the thread of the io_context only.
struct ConnectionHub {
    ConnectionHub(asio::io_context& context, const ServerLimits& bounds, MessageServer::Answer answering);

    asio::io_context& io;
    const ServerLimits limits;
    const MessageServer::Answer answer;
    const std::string refusal;  ///< a whole frame, for when there is no memory to make one
    ByteBudget budget;
    Complaints complaints;
    std::set<std::shared_ptr<Connection>> connections;
    std::size_t closed = 0;  ///< connections that went since memory was given back last
};

/// One client: reads frames, has them answered and sends the replies, one after the other. Runs on the thread of the
/// io_context. Lives as long as something of it is under way.
class Connection : public std::enable_shared_from_this<Connection> {
public:
    using Socket = asio::local::stream_protocol::socket;
    using SteadyTime = std::chrono::steady_clock::time_point;

    Connection(std::shared_ptr<ConnectionHub> hub, Socket socket, Caller caller);

    /// Waits for the next request.
    void readRequest();
    void close();
    /// Whether nothing is lost to an honest client when this connection goes: no request of it is being handled.
    bool expendable() const { return !handling_; }
    SteadyTime since() const { return since_; }
    /// Whether its time is up, or its reply could not be handed over.
    bool expired(SteadyTime now) const { return lost_ || (!handling_ && now - since_ >= limit_); }

private:
    template <typename Step>
    void guarded(Step step) noexcept;
    template <typename Step>
    auto then(Step step);
    void limitTime(std::chrono::milliseconds time);
    void readFirst();
    void takeFirst();
    void readBody();
    void handle();
    void deliver(Answered answered) noexcept;
    void send(const std::string& payload);
    void refuse(std::string_view what, std::size_t number);
    void fail(const char* what) noexcept;
    void forgetBody();

    /// Holds most requests whole, so that one read fetches header and body.
    static constexpr std::size_t FIRST_BLOCK = 512;

    const std::shared_ptr<ConnectionHub> hub_;
    Socket socket_;
    Caller caller_;
    std::array<char, FIRST_BLOCK> first_{};  ///< what came from the start of a frame on
    std::size_t have_ = 0;                   ///< bytes of it
    std::size_t length_ = 0;
    std::vector<char, PageAllocator<char>> body_;
    ByteShare held_;
    bool handling_ = false;
    bool closed_ = false;
    std::atomic<bool> lost_ = false;
    SteadyTime since_;
    std::chrono::milliseconds limit_{};
};

}  // namespace keldra
