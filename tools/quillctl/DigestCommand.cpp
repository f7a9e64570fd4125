// quillctl digest [--progress] FILE...
#include <atomic>
#include <csignal>
#include <cstdio>

#include <unistd.h>

#include "Commands.h"
#include <ferrocore/CException.h>
#include <quillcore/util/CMessageDigest.h>

namespace quillctl {

namespace {

// The digest that Ctrl-C cancels. cancel() is a lock-free atomic store, safe
// from a signal handler.
std::atomic<quill::CMessageDigest*> gRunning{nullptr};
std::atomic<bool> gInterrupted{false};

extern "C" void onInterrupt(int) {
    gInterrupted.store(true);
    if (quill::CMessageDigest* d = gRunning.load()) d->cancel();
}

// md5sum's line: names holding a backslash or a line feed are escaped and the
// line starts with a backslash.
std::string md5sumLine(const ferrocore::CBuffer& digest, const std::string& file) {
    static const char kHex[] = "0123456789abcdef";
    std::string name;
    bool escaped = false;
    for (char c : file) {
        if (c == '\\') {
            name += "\\\\";
            escaped = true;
        } else if (c == '\n') {
            name += "\\n";
            escaped = true;
        } else {
            name += c;
        }
    }
    std::string line = escaped ? "\\" : "";
    for (std::size_t i = 0; i < digest.size(); ++i) {
        line += kHex[digest.data()[i] >> 4];
        line += kHex[digest.data()[i] & 15];
    }
    return line + "  " + name + "\n";
}

void drawProgress(const std::string& file, std::int64_t done, std::int64_t total) {
    constexpr int kWidth = 30;
    const int percent = total > 0 ? static_cast<int>(done * 100 / total) : 100;
    const int filled = percent * kWidth / 100;
    std::fprintf(stderr, "\r[%.*s%*s] %3d%% %s", filled, "##############################", kWidth - filled, "", percent,
                 file.c_str());
    std::fflush(stderr);
}

void clearProgress() { std::fputs("\r\033[K", stderr); }

int digestFiles(const std::vector<std::string>& files, bool progress) {
    struct sigaction action {};
    action.sa_handler = onInterrupt;
    sigemptyset(&action.sa_mask);
    struct sigaction previous {};
    sigaction(SIGINT, &action, &previous);

    const bool showProgress = progress && isatty(STDERR_FILENO);
    int status = 0;
    for (const std::string& file : files) {
        if (gInterrupted.load()) break;
        try {
            quill::CMessageDigest md(ferrocore::CURL::createWithPath(file, false));
            gRunning.store(&md);
            bool drew = false;
            auto callback = [&](std::int64_t done, std::int64_t total) {
                if (showProgress && total > quill::CMessageDigest::kChunkSize) {
                    drawProgress(file, done, total);
                    drew = true;
                }
                return true;
            };
            const ferrocore::CBufferRef& result = md.digest(callback);
            gRunning.store(nullptr);
            if (drew) clearProgress();
            if (!result) break;  // cancelled
            std::fputs(md5sumLine(*result, file).c_str(), stdout);
            std::fflush(stdout);
        } catch (const ferrocore::CException& e) {
            gRunning.store(nullptr);
            printError(file + ": " + e.message());
            status = 1;
        }
    }
    sigaction(SIGINT, &previous, nullptr);
    if (gInterrupted.load()) {
        if (showProgress) clearProgress();
        printError("cancelled");
        return 130;
    }
    return status;
}

}  // namespace

namespace {

void addDigestCommand(CLI::App& app) {
    auto files = std::make_shared<std::vector<std::string>>();
    auto progress = std::make_shared<bool>(false);
    CLI::App* cmd = app.add_subcommand("digest", "Print the MD5 digest of each FILE in md5sum's format");
    cmd->add_option("FILE", *files, "Files to digest")->required();
    cmd->add_flag("--progress", *progress, "Show a progress bar for large files when standard error is a terminal");
    cmd->footer("Ctrl-C cancels cleanly (exit status 130).");
    setAction(cmd, [files, progress] { return digestFiles(*files, *progress); });
}

}  // namespace

QUILLCTL_COMMANDS(addDigestCommand);

}  // namespace quillctl
