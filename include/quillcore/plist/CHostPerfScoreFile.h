// The host performance score: one number by which the cluster weighs its
// hosts, clock speed (GHz) x processor count x a factor for the processor
// type. The factors are configuration, kept in the shared configuration file
// under "hostperfscore"; the processor facts come from the running host
// (platform::host().processorCount() and processorFacts()).
//
// File layout. The top-level key "hostperfscore" holds a dictionary from entry
// name to the entry's settings dictionary. The scoring reads the entry
// "CPUTypes", whose settings are:
//   "Current"   string  the processor type to use; "RuntimeCheck" (or no
//                       value) means: detect it on the host
//   "Default"   number  the factor of a type without a key of its own (1.0
//                       when absent)
//   <type name> number  that type's factor
//
// Processor types. Detection yields one of "Intel X86", "Intel Core",
// "Intel Core 2", "Intel Core Xeon" and "Default". The names stem from the
// processor generations the factors were first tuned for, and on Linux the
// host's facts map onto them like this:
//   - architecture unknown                          -> "Default" (logged)
//   - not x86 (x86_64, i386 ... i686)               -> "Default"
//   - x86 with the family number unknown            -> "Intel X86"
//   - GenuineIntel family 6 model 0x0E (Core Solo and Duo)
//                                                   -> "Intel Core"
//   - GenuineIntel family 6 models 0x0F, 0x16 (Core 2, 65 nm), 0x17, 0x1D
//     (Core 2, 45 nm): "Intel Core Xeon" when the brand string contains
//     "Xeon", else "Intel Core 2" (also when the brand is shorter than five
//     bytes)
//   - every other x86 processor, other vendors' included
//                                                   -> "Intel X86"
// So on current hardware the type is "Intel X86" unless "Current" says
// otherwise; configuration sets the factor of that name, or "Default".
//
// Clock speed: the host's nominal frequency (see CProcessorFacts), raised to
// the reported minimum when below it and lowered to the reported maximum when
// above it, in GHz.
//
// Console messages. The failure messages name the system-information queries
// the scoring was first written against ("Error: sysctlbyname(hw.ncpu)
// failed."); they are kept word for word because log readers match them.
//
// Threads. Entries are values: a const entry may be read from several threads
// at once. The file object follows CPropertyListBasicFile: one thread at a
// time.
#pragma once

#include <cstdint>
#include <string_view>

#include <quillcore/export.h>
#include <quillcore/platform/PLObject.h>
#include <quillcore/plist/CPropertyListFile.h>

namespace quill {

// One named entry of "hostperfscore": a name and a settings dictionary.
class QUILL_EXPORT CHostPerfScoreEntry {
public:
    // No name, no settings.
    CHostPerfScoreEntry() noexcept;
    // A copy of `name` and a mutable copy of `dict` (no settings for null).
    CHostPerfScoreEntry(PLStringRef name, PLDictionaryRef dict);
    // Copies own their settings: the copy's dictionary is a new mutable copy.
    CHostPerfScoreEntry(const CHostPerfScoreEntry& other);
    CHostPerfScoreEntry& operator=(const CHostPerfScoreEntry& other);
    CHostPerfScoreEntry(CHostPerfScoreEntry&&) noexcept = default;
    CHostPerfScoreEntry& operator=(CHostPerfScoreEntry&&) noexcept = default;
    virtual ~CHostPerfScoreEntry();

    // The name (borrowed; null when none).
    PLStringRef name() const noexcept { return _name.get(); }
    // Stores a copy of `name` (null clears it).
    void setName(PLStringRef name);
    // The settings (borrowed; null when none). Changes through it change the
    // entry.
    PLMutableDictionaryRef settings() const noexcept { return _settings.get(); }

    // The settings become a mutable copy of `dict` (none for null).
    void fromDict(PLDictionaryRef dict);
    // A new mutable copy of the settings (an empty dictionary when there are
    // none).
    PLHolder<PLMutableDictionary> toDict() const;

private:
    PLHolder<const PLString> _name;
    PLHolder<PLMutableDictionary> _settings;
};

// The entry "CPUTypes", with the scoring. Adds no fields.
class QUILL_EXPORT CCPUTypePerfScoreEntry : public CHostPerfScoreEntry {
public:
    static constexpr const char* kEntryName = "CPUTypes";
    static constexpr const char* kCurrentKey = "Current";
    static constexpr const char* kDefaultKey = "Default";
    static constexpr const char* kRuntimeCheck = "RuntimeCheck";
    static constexpr double kDefaultFactor = 1.0;

    // The type names detection produces.
    static constexpr const char* kTypeIntelX86 = "Intel X86";
    static constexpr const char* kTypeIntelCore = "Intel Core";
    static constexpr const char* kTypeIntelCore2 = "Intel Core 2";
    static constexpr const char* kTypeIntelCoreXeon = "Intel Core Xeon";
    static constexpr const char* kTypeDefault = "Default";

    CCPUTypePerfScoreEntry() noexcept = default;
    CCPUTypePerfScoreEntry(PLStringRef name, PLDictionaryRef dict) : CHostPerfScoreEntry(name, dict) {}
    ~CCPUTypePerfScoreEntry() override;

    // The number of processors. When the host cannot tell, logs "Error:
    // sysctlbyname(hw.ncpu) failed." to the console and returns -1.
    std::int32_t numCPUs() const;
    // The clock speed in GHz (see the top of this file). When the host knows
    // no frequency, logs "Error: sysctlbyname(hw.cpufrequency) failed." and
    // returns 0.
    double cpuClockSpeed() const;
    // "Current" when it is a string other than "RuntimeCheck", else the
    // detected type (see the top of this file). When the host does not know
    // its architecture, logs "Error: host_info() failed." and returns
    // "Default". A new string.
    PLHolder<const PLString> cpuType() const;
    // The settings' number under `type`; else the number under "Default", or
    // 1.0, after logging "CCPUTypePerfScoreEntry::cpuTypeScore: unknown CPU
    // type \"<type>\"." to the console.
    double cpuTypeScore(PLStringRef type) const;
    // cpuTypeScore(cpuType()).
    double cpuTypeScore() const;
    // cpuClockSpeed() x numCPUs() x cpuTypeScore(cpuType()).
    double cpuPerfScore() const;
};

// The "hostperfscore" section of the shared configuration file, as a list of
// CHostPerfScoreEntry (unordered). Refreshing and flushing follow
// CPropertyListFile: a flush replaces only "hostperfscore".
class QUILL_EXPORT CHostPerfScoreFile : public CPropertyListFile<CHostPerfScoreEntry> {
public:
    static constexpr std::string_view kSectionKey = "hostperfscore";

    // The file at QuillCorePrivate::kHostPerfScoreFilePath with "~" expanded.
    // Throws what CPropertyListBasicFile's constructor and refresh() throw
    // (ferrocore::CNullPointerException "Error: path is null!" when there is
    // no home directory).
    CHostPerfScoreFile();
    // The file at `path` (used as given). Throws as above.
    explicit CHostPerfScoreFile(PLStringRef path);
    ~CHostPerfScoreFile() override;

    bool refresh() { return refreshList({kSectionKey}); }
    bool flush() const { return flushList({kSectionKey}); }

    // The score of the entry "CPUTypes"; without one, of an entry of that
    // name without settings (factor 1.0, so clock speed x processors).
    double cpuPerfScore() const;
};

}  // namespace quill
