#include <string>

#include <systemd/sd-daemon.h>

#include <quillcore/platform/ReadinessNotification.h>

namespace quill::platform {

bool notifyDaemonReady(std::string_view status) {
    std::string message = "READY=1";
    if (!status.empty()) {
        message += "\nSTATUS=";
        for (char c : status) message += c == '\n' ? ' ' : c;
    }
    // NOTIFY_SOCKET stays set; whether the caller's children see it is the
    // caller's choice.
    return sd_notify(0, message.c_str()) > 0;
}

}  // namespace quill::platform
