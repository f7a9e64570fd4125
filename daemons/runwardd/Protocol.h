// The messages between runwardctl and runwardd on the control socket.
//
// A message is a frame: its length as 4 bytes, most significant first, then
// that many bytes of an XML property list holding a dictionary. Requests
// carry "Command" ("load", "unload", "list") and, by command, "Definition"
// (the job-definition dictionary), "Label" and the texts given after "-S"
// and "-D" ("Session", "Domain"). Replies carry "Status" (0 for success),
// "Message" (an error text) and "Output" (what runwardctl prints).
//
// Encoding and decoding are pure: no descriptor, no clock.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include <quillcore/platform/PLObject.h>

namespace runward {

inline constexpr std::size_t kMaxFrameSize = 4u << 20;

struct Request {
    std::string command;
    std::string label;
    std::string session;
    std::string domain;
    PLHolder<const PLDictionary> definition;
};

struct Reply {
    int status = 0;
    std::string message;
    std::string output;
};

std::string encodeRequest(const Request& request);
std::string encodeReply(const Reply& reply);

// Decode one frame's payload (without its length). Nothing on malformed input,
// with a reason.
std::optional<Request> decodeRequest(std::string_view payload, std::string& problem);
std::optional<Reply> decodeReply(std::string_view payload, std::string& problem);

// Collects bytes from a stream and cuts frames out of them.
class FrameReader {
public:
    // Appends received bytes.
    void feed(std::string_view bytes) { _buffer.append(bytes); }
    // The next complete payload, if any. Sets `oversized` (and returns
    // nothing) when a frame announces more than kMaxFrameSize bytes.
    std::optional<std::string> next(bool& oversized);

private:
    std::string _buffer;
};

// The session and domain texts runwardctl accepts after "-S" and "-D".
bool isKnownSession(std::string_view text);
bool isKnownDomain(std::string_view text);

}  // namespace runward
