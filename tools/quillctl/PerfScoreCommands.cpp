// quillctl perfscore, quillctl frameworks
#include <cinttypes>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>

#include "Commands.h"
#include <quillcore/control/FrameworkPaths.h>
#include <quillcore/platform/Host.h>
#include <quillcore/plist/CHostPerfScoreFile.h>

namespace quillctl {

namespace {

std::string orUnknown(const std::string& text) { return text.empty() ? "unknown" : text; }
std::string orUnknown(std::int64_t number) { return number < 0 ? "unknown" : std::to_string(number); }
std::string hertz(std::uint64_t value) { return value == 0 ? "unknown" : std::to_string(value) + " Hz"; }

int perfScore(const std::string& file) {
    std::optional<quill::CHostPerfScoreFile> scores;
    if (file.empty())
        scores.emplace();
    else
        scores.emplace(PLString::create(file).get());

    const PLHolder<const PLString> name = PLString::create(quill::CCPUTypePerfScoreEntry::kEntryName);
    quill::CHostPerfScoreEntry stored(name.get(), nullptr);
    scores->get(name.get(), stored);
    const quill::CCPUTypePerfScoreEntry entry(stored.name(), stored.settings());

    const quill::platform::CProcessorFacts facts = quill::platform::host().processorFacts();
    std::printf("architecture: %s\n", orUnknown(facts.architecture).c_str());
    std::printf("vendor: %s\n", orUnknown(facts.vendor).c_str());
    std::printf("family: %s\n", orUnknown(facts.family).c_str());
    std::printf("model: %s\n", orUnknown(facts.model).c_str());
    std::printf("brand: %s\n", orUnknown(facts.brand).c_str());
    std::printf("nominal frequency: %s\n", hertz(facts.frequency).c_str());
    std::printf("minimum frequency: %s\n", hertz(facts.minimumFrequency).c_str());
    std::printf("maximum frequency: %s\n", hertz(facts.maximumFrequency).c_str());

    // The same product as cpuPerfScore(), from one detection and one lookup.
    const std::int32_t processors = entry.numCPUs();
    const double gigahertz = entry.cpuClockSpeed();
    const PLHolder<const PLString> type = entry.cpuType();
    const double factor = entry.cpuTypeScore(type.get());
    std::printf("processors: %d\n", processors);
    std::printf("clock speed: %.6f GHz\n", gigahertz);
    std::printf("cpu type: %s\n", type->c_str());
    std::printf("type factor: %g\n", factor);
    std::printf("score: %.6f\n", gigahertz * processors * factor);
    return 0;
}

int frameworks() {
    const PLHolder<const PLURL> corvane = PLHolder<const PLURL>::adopt(getCorvaneFrameworkURL());
    const PLHolder<const PLURL> lumenforge = PLHolder<const PLURL>::adopt(getLumenforgeFrameworkURL());
    if (!corvane) {
        printError(std::string(quill::kCorvaneFrameworkName) + " not found: this library (" +
                   quill::kQuillCoreBundleIdentifier + ") is not installed inside it");
        return 1;
    }
    std::printf("%s: %s\n", quill::kCorvaneFrameworkName, corvane->fileSystemPath().c_str());
    std::printf("%s: %s\n", quill::kLumenforgeFrameworkName, lumenforge->fileSystemPath().c_str());
    return 0;
}

void addPerfScoreCommands(CLI::App& app) {
    auto file = std::make_shared<std::string>();
    CLI::App* scoreCmd = app.add_subcommand("perfscore", "Print the processor facts and the host performance score");
    scoreCmd->add_option("--file", *file, "The configuration file to read the factors from (default: under HOME)");
    scoreCmd->footer(
        "score = clock speed (GHz) x processors x the factor of the processor type, from the\n"
        "\"hostperfscore\" section's \"CPUTypes\" entry.");
    setAction(scoreCmd, [file] { return perfScore(*file); });

    CLI::App* frameworksCmd =
        app.add_subcommand("frameworks", "Print where Corvane.framework and Lumenforge.framework are installed");
    setAction(frameworksCmd, [] { return frameworks(); });
}

}  // namespace

QUILLCTL_COMMANDS(addPerfScoreCommands);

}  // namespace quillctl
