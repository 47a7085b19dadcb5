#pragma once

#include <string>
#include <string_view>

/// Sends an open file over a Unix socket, with one byte. False when it could not be sent.
bool sendDescriptor(int socket, int file);

/// Asks a scanner that speaks clamd's protocol on a Unix socket, over a connection for each question.
class ClamdClient {
public:
    explicit ClamdClient(std::string socket) : socket_(std::move(socket)) {}

    /// Sends a stream. The answer without its end; empty when there was none.
    std::string stream(std::string_view content) const;
    /// Hands over an open file, with the same answers.
    std::string descriptor(int fd) const;
    /// Begins a stream and does not go on for so many milliseconds.
    void stall(int milliseconds) const;

private:
    int connected() const;

    std::string socket_;
};
