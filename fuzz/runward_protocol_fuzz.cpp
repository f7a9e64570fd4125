// Fuzz target for runwardd's control channel: the frames and requests that
// any process of the user could write to the control socket.
//
// Input: any bytes, fed to the frame reader in two pieces. Every payload cut
// out must be refused by the request decoder with a reason or give a request;
// a request's definition must be refused with a reason or give a job that
// comes back unchanged through its dictionary form. Any violation aborts.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "JobDefinition.h"
#include "Protocol.h"

namespace {

[[noreturn]] void failCheck(const char* what, const std::string& detail) {
    std::fprintf(stderr, "runward_protocol_fuzz: %s: %s\n", what, detail.c_str());
    std::abort();
}

void checkPayload(const std::string& payload) {
    std::string problem;
    auto request = runward::decodeRequest(payload, problem);
    if (!request) {
        if (problem.empty()) failCheck("refused without a reason", payload);
        return;
    }
    if (!request->definition) return;
    problem.clear();
    auto job = runward::parseJobDefinition(request->definition.get(), problem);
    if (!job) {
        if (problem.empty()) failCheck("definition refused without a reason", payload);
        return;
    }
    auto again = runward::parseJobDefinition(runward::jobDefinitionDictionary(*job).get(), problem);
    if (!again || again->label != job->label || again->programArguments != job->programArguments ||
        again->pathState != job->pathState || again->keepAlive != job->keepAlive ||
        again->successfulExit != job->successfulExit || again->runAtLoad != job->runAtLoad) {
        failCheck("definition changed on its way round", job->label);
    }
    // And a request made of it decodes to the same job.
    runward::Request copy = *request;
    copy.definition = runward::jobDefinitionDictionary(*job);
    std::string frame = runward::encodeRequest(copy);
    auto decoded = runward::decodeRequest(std::string_view(frame).substr(4), problem);
    if (!decoded || decoded->command != request->command) failCheck("re-encoded request refused", problem);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size > runward::kMaxFrameSize) return -1;
    std::string bytes(reinterpret_cast<const char*>(data), size);
    // The payload alone, and the bytes as a stream of frames.
    checkPayload(bytes);
    runward::FrameReader reader;
    std::size_t half = size / 2;
    reader.feed(std::string_view(bytes).substr(0, half));
    reader.feed(std::string_view(bytes).substr(half));
    for (int frames = 0; frames < 64; ++frames) {
        bool oversized = false;
        auto payload = reader.next(oversized);
        if (!payload) break;
        checkPayload(*payload);
    }
    return 0;
}
