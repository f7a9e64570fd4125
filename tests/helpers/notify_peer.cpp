// The other process in the notification tests. It talks through the
// library's exported notification functions, as every cluster program does.
//
//   quill_notify_peer echo LISTEN REPLY COUNT
//       observes LISTEN (any sender); first posts REPLY with {"ready": true},
//       then answers each of COUNT notifications with REPLY, the same sender
//       and the same user information.
//   quill_notify_peer post NAME SENDER COUNT
//       posts COUNT notifications NAME from SENDER with {"seq": i}.
//   quill_notify_peer meet NAME
//       posts NAME with its own process ID as sender until it has heard a
//       notification NAME from another process, then a little longer; exits
//       0 when it has, 1 after ten seconds without.
//   quill_notify_peer --host MODE ...
//       the same on the host-wide bus (hostNotificationCenter()).
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include <unistd.h>

#include <quillcore/control/QuillNotification.h>
#include <quillcore/platform/NotificationCenter.h>
#include <quillcore/platform/RunLoop.h>

namespace {

using quill::platform::CRunLoop;

PLHolder<const PLString> text(const std::string& s) { return PLString::create(s); }

struct EchoState {
    PLHolder<const PLString> reply;
    int remaining = 0;
};

void echo(PLNotificationCenterRef, void* observer, PLStringRef, PLStringRef sender, PLDictionaryRef userInfo) {
    auto* state = static_cast<EchoState*>(observer);
    sendNotification(state->reply.get(), sender, userInfo);
    if (--state->remaining == 0) CRunLoop::current().stop();
}

struct MeetState {
    std::string self;
    bool heard = false;
};

void meet(PLNotificationCenterRef, void* observer, PLStringRef, PLStringRef sender, PLDictionaryRef) {
    auto* state = static_cast<MeetState*>(observer);
    if (sender && sender->str() != state->self) state->heard = true;
}

int usage() {
    std::fprintf(stderr,
                 "usage: quill_notify_peer [--host] echo LISTEN REPLY COUNT | post NAME SENDER COUNT | meet NAME\n");
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    std::unique_ptr<quill::platform::CScopedNotificationCenter> hostWide;
    if (argc > 1 && std::string(argv[1]) == "--host") {
        hostWide =
            std::make_unique<quill::platform::CScopedNotificationCenter>(quill::platform::hostNotificationCenter());
        --argc;
        ++argv;
    }
    if (argc < 3) return usage();
    const std::string mode = argv[1];
    CRunLoop& loop = CRunLoop::current();
    if (mode == "echo" && argc == 5) {
        EchoState state{text(argv[3]), std::atoi(argv[4])};
        auto listen = text(argv[2]);
        registerForNotification(&state, &echo, listen.get(), nullptr);
        PLHolder<PLMutableDictionary> ready = PLMutableDictionary::create();
        ready->set(text("ready"), PLHolder<const PLObject>::retain(kPLBooleanTrue));
        sendNotification(state.reply.get(), nullptr, ready.get());
        loop.runUntil([&] { return state.remaining <= 0; }, 20.0);
        unregisterForNotifications(&state);
        return state.remaining <= 0 ? 0 : 1;
    }
    if (mode == "post" && argc == 5) {
        auto name = text(argv[2]);
        auto sender = text(argv[3]);
        const int count = std::atoi(argv[4]);
        for (int i = 0; i < count; ++i) {
            PLHolder<PLMutableDictionary> info = PLMutableDictionary::create();
            info->set(text("seq"), PLNumber::create(i));
            sendNotification(name.get(), sender.get(), info.get());
        }
        return 0;
    }
    if (mode == "meet" && argc == 3) {
        MeetState state{std::to_string(::getpid())};
        auto name = text(argv[2]);
        auto self = text(state.self);
        registerForNotification(&state, &meet, name.get(), nullptr);
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (!state.heard && std::chrono::steady_clock::now() < deadline) {
            sendNotification(name.get(), self.get(), nullptr);
            loop.runFor(0.05);
        }
        // Keep saying hello so that the other side hears us too.
        for (int i = 0; i < 10; ++i) {
            sendNotification(name.get(), self.get(), nullptr);
            loop.runFor(0.05);
        }
        std::printf("%s\n", state.heard ? "met" : "alone");
        return state.heard ? 0 : 1;
    }
    return usage();
}
