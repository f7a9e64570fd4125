#include "platform/linux/LinuxSystemFacts.h"

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include <link.h>
#include <sys/utsname.h>
#include <unistd.h>

namespace quill::platform::linuxhost {

namespace {

constexpr const char* kCPUInfoPath = "/proc/cpuinfo";
constexpr const char* kCPUFreqDirectory = "/sys/devices/system/cpu/cpu0/cpufreq/";

std::string_view trim(std::string_view text) {
    constexpr std::string_view kSpace = " \t\r\n";
    const auto first = text.find_first_not_of(kSpace);
    if (first == std::string_view::npos) return {};
    const auto last = text.find_last_not_of(kSpace);
    return text.substr(first, last - first + 1);
}

// A decimal or "0x" number filling all of `text`; -1 otherwise.
std::int32_t parseInteger(std::string_view text) {
    const std::string value(text);
    if (value.empty()) return -1;
    errno = 0;
    char* end = nullptr;
    const long number = std::strtol(value.c_str(), &end, 0);
    if (errno != 0 || *end != '\0' || number < 0 || number > INT32_MAX) return -1;
    return static_cast<std::int32_t>(number);
}

// A decimal number at the start of `text`, with its end; false when none.
bool parseLeadingNumber(std::string_view text, double& number, std::size_t& used) {
    const std::string value(text);
    char* end = nullptr;
    number = std::strtod(value.c_str(), &end);
    used = static_cast<std::size_t>(end - value.c_str());
    return used > 0 && number > 0.0;
}

std::uint64_t toHertz(double value, double unit) {
    const double hertz = value * unit;
    return hertz >= 1.0 && hertz < 1e18 ? static_cast<std::uint64_t>(hertz + 0.5) : 0;
}

// The rating in a brand string such as "... CPU @ 2.40GHz"; 0 when it has
// none.
std::uint64_t ratedFrequency(std::string_view brand) {
    const auto at = brand.rfind('@');
    if (at == std::string_view::npos) return 0;
    const std::string_view rest = trim(brand.substr(at + 1));
    double number = 0.0;
    std::size_t used = 0;
    if (!parseLeadingNumber(rest, number, used)) return 0;
    const std::string_view unit = trim(rest.substr(used));
    if (unit == "GHz") return toHertz(number, 1e9);
    if (unit == "MHz") return toHertz(number, 1e6);
    return 0;
}

// A cpufreq file holds one decimal number of kilohertz; 0 when it is missing
// or holds something else.
std::uint64_t readKilohertzFile(const char* name) {
    std::ifstream in(std::string(kCPUFreqDirectory) + name);
    unsigned long long kilohertz = 0;
    if (!(in >> kilohertz)) return 0;
    return kilohertz * 1000u;
}

int collectImage(dl_phdr_info* info, std::size_t, void* data) {
    auto* paths = static_cast<std::vector<std::string>*>(data);
    // The program itself comes first with an empty name (it was added
    // already); the kernel's virtual object has a name without a directory.
    if (info->dlpi_name && std::string_view(info->dlpi_name).find('/') != std::string_view::npos)
        paths->emplace_back(info->dlpi_name);
    return 0;
}

}  // namespace

void parseCPUInfo(std::string_view text, CProcessorFacts& facts) {
    double currentMegahertz = 0.0;
    std::size_t start = 0;
    while (start < text.size()) {
        auto end = text.find('\n', start);
        if (end == std::string_view::npos) end = text.size();
        const std::string_view line = text.substr(start, end - start);
        start = end + 1;
        if (trim(line).empty()) {
            // The first processor's block is over.
            if (!facts.vendor.empty() || facts.family >= 0 || !facts.brand.empty()) break;
            continue;
        }
        const auto colon = line.find(':');
        if (colon == std::string_view::npos) continue;
        const std::string_view key = trim(line.substr(0, colon));
        const std::string_view value = trim(line.substr(colon + 1));
        if (key == "vendor_id") {
            facts.vendor = value;
        } else if (key == "cpu family") {
            facts.family = parseInteger(value);
        } else if (key == "model") {
            facts.model = parseInteger(value);
        } else if (key == "model name") {
            facts.brand = value;
        } else if (key == "cpu MHz") {
            double number = 0.0;
            std::size_t used = 0;
            if (parseLeadingNumber(value, number, used)) currentMegahertz = number;
        }
    }
    if (facts.frequency == 0) facts.frequency = ratedFrequency(facts.brand);
    if (facts.frequency == 0) facts.frequency = toHertz(currentMegahertz, 1e6);
}

CProcessorFacts readProcessorFacts() {
    CProcessorFacts facts;
    utsname names{};
    if (uname(&names) == 0) facts.architecture = names.machine;
    facts.frequency = readKilohertzFile("base_frequency");
    facts.minimumFrequency = readKilohertzFile("cpuinfo_min_freq");
    facts.maximumFrequency = readKilohertzFile("cpuinfo_max_freq");
    std::ifstream in(kCPUInfoPath);
    if (in) {
        std::ostringstream text;
        text << in.rdbuf();
        parseCPUInfo(text.str(), facts);
    }
    if (facts.frequency == 0) facts.frequency = facts.maximumFrequency;
    return facts;
}

std::vector<std::string> readLoadedImagePaths() {
    std::vector<std::string> paths;
    std::vector<char> buffer(4096);
    for (;;) {
        const ssize_t length = readlink("/proc/self/exe", buffer.data(), buffer.size());
        if (length < 0) break;
        if (static_cast<std::size_t>(length) < buffer.size()) {
            paths.emplace_back(buffer.data(), static_cast<std::size_t>(length));
            break;
        }
        buffer.resize(buffer.size() * 2);
    }
    dl_iterate_phdr(collectImage, &paths);
    return paths;
}

}  // namespace quill::platform::linuxhost
