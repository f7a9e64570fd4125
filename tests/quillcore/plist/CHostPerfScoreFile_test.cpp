#include <quillcore/platform/Host.h>
#include <quillcore/plist/CHostPerfScoreFile.h>

#include "support/TestSupport.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

namespace {

namespace fs = std::filesystem;
using quill::CCPUTypePerfScoreEntry;
using quill::CHostPerfScoreFile;

// A host with the processors a test describes.
class ProcessorHost final : public quill::platform::CHostWrapper {
public:
    std::int32_t count = 8;
    quill::platform::CProcessorFacts facts;
    std::int32_t processorCount() override { return count; }
    quill::platform::CProcessorFacts processorFacts() override { return facts; }
};

class HostPerfScore : public testing::Test {
protected:
    HostPerfScore() : _scope(host), _consoleStart(consoleText().size()) {
        host.facts = {"x86_64", "GenuineIntel", 6, 0x55, "Intel(R) Xeon(R) Gold 6130 CPU @ 2.10GHz", 2'100'000'000, 0, 0};
    }
    // How often `text` was written to the console since the test began.
    int consoleCount(const std::string& text) const {
        const std::string lines = consoleText().substr(_consoleStart);
        int found = 0;
        for (auto at = lines.find(text); at != std::string::npos; at = lines.find(text, at + 1)) ++found;
        return found;
    }
    // A score file whose "hostperfscore" section is `section`.
    CHostPerfScoreFile file(const std::string& section) {
        quilltest::writeFile(dir / "config.plist", "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n"
                                                   "<dict>\n" + section + "</dict>\n</plist>\n");
        return CHostPerfScoreFile(PLString::create((dir / "config.plist").string()).get());
    }

    ProcessorHost host;
    quilltest::TempDir dir;

private:
    static std::string consoleText() {
        return fs::exists(quilltest::consoleLogPath()) ? quilltest::readFile(quilltest::consoleLogPath()) : "";
    }
    quill::platform::CScopedHost _scope;
    std::size_t _consoleStart;
};

TEST_F(HostPerfScore, TheScoreIsSpeedTimesProcessorsTimesTheTypesFactor) {
    // Without factors: 1.0, and the unknown type is logged once.
    EXPECT_DOUBLE_EQ(file("").cpuPerfScore(), 2.1 * 8);
    EXPECT_EQ(consoleCount("CCPUTypePerfScoreEntry::cpuTypeScore: unknown CPU type \"Intel X86\"."), 1);

    // A configured type is used without detection (which would log here).
    host.facts.architecture.clear();
    EXPECT_DOUBLE_EQ(file("<key>hostperfscore</key><dict><key>CPUTypes</key><dict>"
                          "<key>Current</key><string>Intel Core 2</string><key>Intel Core 2</key><real>1.5</real>"
                          "</dict></dict>")
                         .cpuPerfScore(),
                     2.1 * 8 * 1.5);
    EXPECT_EQ(consoleCount("Error: host_info() failed."), 0);

    // "RuntimeCheck" detects; a type without a factor takes "Default".
    EXPECT_DOUBLE_EQ(file("<key>hostperfscore</key><dict><key>CPUTypes</key><dict>"
                          "<key>Current</key><string>RuntimeCheck</string><key>Default</key><real>0.5</real>"
                          "<key>Intel X86</key><real>3</real></dict></dict>")
                         .cpuPerfScore(),
                     2.1 * 8 * 0.5);
    EXPECT_EQ(consoleCount("Error: host_info() failed."), 1);
    EXPECT_EQ(consoleCount("unknown CPU type \"Default\"."), 0);  // "Default" is a type of its own
}

TEST_F(HostPerfScore, FactsOutsideTheirBoundsOrUnknownAreHandled) {
    const CCPUTypePerfScoreEntry entry;
    host.facts.frequency = 800'000'000;
    host.facts.minimumFrequency = 1'200'000'000;
    host.facts.maximumFrequency = 3'000'000'000;
    EXPECT_DOUBLE_EQ(entry.cpuClockSpeed(), 1.2);
    host.facts.frequency = 3'500'000'000;
    EXPECT_DOUBLE_EQ(entry.cpuClockSpeed(), 3.0);

    host.count = -1;
    host.facts.frequency = 0;
    EXPECT_EQ(entry.numCPUs(), -1);
    EXPECT_EQ(entry.cpuClockSpeed(), 0.0);
    EXPECT_EQ(consoleCount("Error: sysctlbyname(hw.ncpu) failed."), 1);
    EXPECT_EQ(consoleCount("Error: sysctlbyname(hw.cpufrequency) failed."), 1);
}

TEST_F(HostPerfScore, DetectionMapsTheHostsFactsOntoTheTypeNames) {
    struct Case {
        const char *architecture, *vendor;
        int family, model;
        const char *brand, *type;
    };
    for (const Case& c : {Case{"aarch64", "", -1, -1, "", "Default"},
                          Case{"x86_64", "GenuineIntel", -1, -1, "", "Intel X86"},
                          Case{"i686", "GenuineIntel", 6, 0x0E, "Genuine Intel(R) CPU T2300", "Intel Core"},
                          Case{"x86_64", "GenuineIntel", 6, 0x0F, "Intel(R) Core(TM)2 CPU 6600", "Intel Core 2"},
                          Case{"x86_64", "GenuineIntel", 6, 0x17, "Intel(R) Xeon(R) CPU E5450", "Intel Core Xeon"},
                          Case{"x86_64", "GenuineIntel", 6, 0x1D, "Xeon", "Intel Core 2"},  // too short to judge
                          Case{"x86_64", "GenuineIntel", 6, 0x55, "Intel(R) Xeon(R) Gold", "Intel X86"},
                          Case{"x86_64", "AuthenticAMD", 6, 0x0E, "AMD Athlon", "Intel X86"}}) {
        host.facts = {c.architecture, c.vendor, c.family, c.model, c.brand, 1, 0, 0};
        EXPECT_EQ(CCPUTypePerfScoreEntry().cpuType()->str(), c.type) << c.brand;
    }
}

}  // namespace
