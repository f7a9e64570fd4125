#include <array>
#include <string>
#include <string_view>

#include <ferrocore/Format.h>
#include <quillcore/control/QuillCorePrivate.h>
#include <quillcore/platform/Host.h>
#include <quillcore/plist/CHostPerfScoreFile.h>
#include <quillcore/util/CFileUtil.h>
#include <quillcore/util/PLUtil.h>

namespace quill {

namespace {

// The brand string is read up to this many bytes, as the system query it
// stands in for did.
inline constexpr std::size_t kBrandStringCapacity = 1024;
// A brand string shorter than this tells nothing.
inline constexpr std::size_t kMinimumBrandLength = 5;

// The processor generations the type names were made for.
enum class CPUFamily { Unknown, Other, Core, Core2 };

bool isX86(std::string_view architecture) {
    return architecture == "x86_64" || architecture == "x86" || architecture == "i386" || architecture == "i486" ||
           architecture == "i586" || architecture == "i686";
}

CPUFamily familyOf(const platform::CProcessorFacts& facts) {
    if (facts.family < 0) return CPUFamily::Unknown;
    if (facts.vendor != "GenuineIntel" || facts.family != 6) return CPUFamily::Other;
    constexpr std::array kCore2Models = {0x0F, 0x16, 0x17, 0x1D};
    if (facts.model == 0x0E) return CPUFamily::Core;
    for (int model : kCore2Models)
        if (facts.model == model) return CPUFamily::Core2;
    return CPUFamily::Other;
}

PLHolder<const PLString> copyOf(PLStringRef text) { return text ? PLString::create(text->utf8()) : nullptr; }

}  // namespace

// ------------------------------------------------------------ CHostPerfScoreEntry

CHostPerfScoreEntry::CHostPerfScoreEntry() noexcept = default;

CHostPerfScoreEntry::CHostPerfScoreEntry(PLStringRef name, PLDictionaryRef dict) : _name(copyOf(name)) {
    fromDict(dict);
}

CHostPerfScoreEntry::CHostPerfScoreEntry(const CHostPerfScoreEntry& other)
    : _name(other._name), _settings(other._settings ? PLDictionaryCreateMutableCopy(other._settings.get()) : nullptr) {}

CHostPerfScoreEntry& CHostPerfScoreEntry::operator=(const CHostPerfScoreEntry& other) {
    if (this != &other) *this = CHostPerfScoreEntry(other);
    return *this;
}

CHostPerfScoreEntry::~CHostPerfScoreEntry() = default;

void CHostPerfScoreEntry::setName(PLStringRef name) { _name = copyOf(name); }

void CHostPerfScoreEntry::fromDict(PLDictionaryRef dict) {
    _settings = dict ? PLDictionaryCreateMutableCopy(dict) : nullptr;
}

PLHolder<PLMutableDictionary> CHostPerfScoreEntry::toDict() const {
    return PLUtil::PLDictMakeMutableCopy(_settings.get());
}

// ---------------------------------------------------------- CCPUTypePerfScoreEntry

CCPUTypePerfScoreEntry::~CCPUTypePerfScoreEntry() = default;

std::int32_t CCPUTypePerfScoreEntry::numCPUs() const {
    const std::int32_t count = platform::host().processorCount();
    if (count < 0) {
        PLUtil::LogToConsole("Error: sysctlbyname(hw.ncpu) failed.");
        return -1;
    }
    return count;
}

double CCPUTypePerfScoreEntry::cpuClockSpeed() const {
    const platform::CProcessorFacts facts = platform::host().processorFacts();
    if (facts.frequency == 0) {
        PLUtil::LogToConsole("Error: sysctlbyname(hw.cpufrequency) failed.");
        return 0.0;
    }
    std::uint64_t hertz = facts.frequency;
    if (facts.minimumFrequency != 0 && facts.minimumFrequency > hertz) hertz = facts.minimumFrequency;
    if (facts.maximumFrequency != 0 && facts.maximumFrequency < hertz) hertz = facts.maximumFrequency;
    return static_cast<double>(hertz) / 1e9;
}

PLHolder<const PLString> CCPUTypePerfScoreEntry::cpuType() const {
    if (const PLString* current = PLDynamicCast<PLString>(settings() ? settings()->get(kCurrentKey) : nullptr);
        current && current->utf8() != kRuntimeCheck)
        return copyOf(current);

    const platform::CProcessorFacts facts = platform::host().processorFacts();
    if (facts.architecture.empty()) {
        PLUtil::LogToConsole("Error: host_info() failed.");
        return PLString::create(kTypeDefault);
    }
    if (!isX86(facts.architecture)) return PLString::create(kTypeDefault);
    switch (familyOf(facts)) {
        case CPUFamily::Core: return PLString::create(kTypeIntelCore);
        case CPUFamily::Core2: {
            const std::string_view brand =
                std::string_view(facts.brand).substr(0, kBrandStringCapacity - 1);  // room for the NUL
            if (brand.size() < kMinimumBrandLength) return PLString::create(kTypeIntelCore2);
            return PLString::create(brand.find("Xeon") != std::string_view::npos ? kTypeIntelCoreXeon
                                                                                 : kTypeIntelCore2);
        }
        case CPUFamily::Unknown:
        case CPUFamily::Other: break;
    }
    return PLString::create(kTypeIntelX86);
}

double CCPUTypePerfScoreEntry::cpuTypeScore(PLStringRef type) const {
    double factor = 0.0;
    if (type && PLUtil::PLDictGetDouble(settings(), type, &factor)) return factor;
    if (!settings() || !PLUtil::PLDictGetDouble(settings(), PLString::create(kDefaultKey).get(), &factor))
        factor = kDefaultFactor;
    const std::string_view typeText = type ? type->utf8() : std::string_view("(null)");
    PLUtil::LogToConsole(
        ferrocore::formatString("CCPUTypePerfScoreEntry::cpuTypeScore: unknown CPU type \"%@\".", typeText).c_str());
    return factor;
}

double CCPUTypePerfScoreEntry::cpuTypeScore() const { return cpuTypeScore(cpuType().get()); }

double CCPUTypePerfScoreEntry::cpuPerfScore() const {
    return cpuClockSpeed() * static_cast<double>(numCPUs()) * cpuTypeScore(cpuType().get());
}

// -------------------------------------------------------------- CHostPerfScoreFile

CHostPerfScoreFile::CHostPerfScoreFile()
    : CHostPerfScoreFile(CFileUtil::expandTildeInPath(QuillCorePrivate::kHostPerfScoreFilePath).get()) {}

CHostPerfScoreFile::CHostPerfScoreFile(PLStringRef path) : CPropertyListFile<CHostPerfScoreEntry>(path) {
    setOrdered(false);
    refresh();
}

CHostPerfScoreFile::~CHostPerfScoreFile() = default;

double CHostPerfScoreFile::cpuPerfScore() const {
    const PLHolder<const PLString> name = PLString::create(CCPUTypePerfScoreEntry::kEntryName);
    CHostPerfScoreEntry entry(name.get(), nullptr);
    get(name.get(), entry);
    return CCPUTypePerfScoreEntry(entry.name(), entry.settings()).cpuPerfScore();
}

}  // namespace quill
