// A realistic host configuration file for the property-list file benchmark
// and the kill report: the four records side by side ("corvaneconfig",
// "serviceconfig", "corvaneservices", "hostperfscore") with the keys their
// classes write, about 10 KB as XML. Deterministic.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include <fcntl.h>
#include <unistd.h>

#include <quillcore/platform/PLObject.h>

namespace plistbench {

// Ends the program with the system's reason for `what`.
[[noreturn]] inline void fail(const char* what) {
    std::perror(what);
    std::exit(1);
}

// Replaces the file at `path` with `bytes`.
inline void writeWhole(const std::string& path, const std::string& bytes) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (fd < 0 || ::write(fd, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) fail(path.c_str());
    ::close(fd);
}

// The counter that every benchmark cycle increments, inside "corvaneconfig".
inline constexpr std::string_view kCounterKey = "BenchCounter";

inline PLHolder<const PLString> str(std::string_view text) { return PLString::create(text); }

inline void put(PLMutableDictionary& dict, std::string_view key, PLHolder<const PLObject> value) {
    dict.set(str(key), std::move(value));
}
inline void put(PLMutableDictionary& dict, std::string_view key, std::string_view text) { put(dict, key, str(text)); }
// Without this, a string literal would pick the bool overload.
inline void put(PLMutableDictionary& dict, std::string_view key, const char* text) {
    put(dict, key, std::string_view(text));
}
inline void put(PLMutableDictionary& dict, std::string_view key, bool flag) {
    put(dict, key, PLHolder<const PLObject>::retain(PLBoolean::get(flag)));
}
inline void put(PLMutableDictionary& dict, std::string_view key, int number) {
    put(dict, key, PLNumber::create(number));
}

inline PLHolder<PLMutableDictionary> makeConfigDocument() {
    auto top = PLMutableDictionary::create();

    auto config = PLMutableDictionary::create();
    put(*config, "DaemonEnabled", true);
    put(*config, "DaemonPort", 2190);
    put(*config, "StdoutPath", "/Users/editor/Library/Logs/Corvane/corvaned.log");
    put(*config, "StdoutServicePath", "/Users/editor/Library/Logs/Corvane/services.log");
    put(*config, "SharingEnabled", true);
    put(*config, "SharingType", 2);
    put(*config, "LogToFile", true);
    put(*config, "RequirePassword", true);
    put(*config, "ServerPassword", "s3cret-cluster-pw");
    put(*config, "ServerName", "Edit Bay 4 (Mac Pro)");
    put(*config, "Advertising", "MC");
    put(*config, "NetworkConnection", "en0");
    put(*config, "DNSDomain", "render.studio.example.com");
    put(*config, "UseDNSDomain", true);
    put(*config, "UsePortRange", true);
    put(*config, "PortRangeStart", 50000);
    put(*config, "PortRangePorts", 200);
    put(*config, std::string(kCounterKey), 0);
    put(*top, "corvaneconfig", std::move(config));

    static constexpr std::string_view kFamilies[] = {"executor", "transcoder", "renderer", "analyzer", "packager"};
    auto services = PLMutableDictionary::create();
    int instance = 0;
    for (std::string_view family : kFamilies) {
        const std::string name = "servicecontroller:com.tessaly.corvane." + std::string(family);
        auto entry = PLMutableDictionary::create();
        put(*entry, "SharePref", instance % 2 == 0);
        put(*entry, "NetworkName", "Corvane " + std::string(family) + " on Edit Bay 4");
        put(*entry, "DisplayName", "Corvane " + std::string(family));
        put(*entry, "Description", "Processes " + std::string(family) + " segments for the cluster");
        put(*entry, "Executable", "corvane" + std::string(family));
        put(*entry, "Path",
            "/Library/Frameworks/Corvane.framework/Resources/" + std::string(family) +
                ".service/Contents/MacOS/corvane" + std::string(family));
        put(*entry, "BundlePath",
            "/Library/Frameworks/Corvane.framework/Resources/" + std::string(family) + ".service");
        auto prefs = PLMutableDictionary::create();
        put(*prefs, "StdoutPath", "/Users/editor/Library/Logs/Corvane/" + std::string(family) + ".log");
        put(*prefs, "LogLevel", 4);
        put(*entry, "UserPrefs", std::move(prefs));
        put(*entry, "Version", 303 + instance);
        put(*entry, "UserID", 501);
        put(*entry, "Instances", instance % 3 + 1);
        put(*entry, "Enabled", true);
        put(*entry, "ExplicitSyncOnly", false);
        put(*entry, "DetachDaemon", false);
        put(*entry, "LocalAds", true);
        put(*entry, "Logging", instance % 2 == 1);
        put(*entry, "Visible", true);
        put(*services, name, std::move(entry));
        ++instance;
    }
    put(*top, "corvaneservices", std::move(services));

    auto serviceConfig = PLMutableDictionary::create();
    for (std::string_view family : {"executor", "transcoder", "renderer"}) {
        auto list = PLMutableDictionary::create();
        auto order = PLMutableArray::create();
        for (std::string_view entryName : {"default", "night-shift"}) {
            auto entry = PLMutableDictionary::create();
            put(*entry, "akey", "AK-" + std::string(family) + "-7f3a9c21");
            put(*entry, "ckey", "CK-" + std::string(family) + "-0b44e1d9");
            auto settings = PLMutableDictionary::create();
            put(*settings, "cancelJobs", entryName == "default");
            put(*settings, "MaxActiveTargets", 4);
            put(*settings, "ScratchPath", "/Volumes/Scratch/Corvane/" + std::string(family));
            put(*entry, "config", std::move(settings));
            put(*list, entryName, std::move(entry));
            order->append(str(entryName));
        }
        put(*list, "_orderList", std::move(order));
        put(*serviceConfig, "servicecontroller:com.tessaly.corvane." + std::string(family), std::move(list));
    }
    put(*top, "serviceconfig", std::move(serviceConfig));

    auto cpuTypes = PLMutableDictionary::create();
    put(*cpuTypes, "Current", "RuntimeCheck");
    put(*cpuTypes, "Default", PLNumber::create(1.0));
    put(*cpuTypes, "Intel X86", PLNumber::create(0.5));
    put(*cpuTypes, "Intel Core", PLNumber::create(0.8));
    put(*cpuTypes, "Intel Core 2", PLNumber::create(1.0));
    put(*cpuTypes, "Intel Core Xeon", PLNumber::create(1.25));
    auto perf = PLMutableDictionary::create();
    put(*perf, "CPUTypes", std::move(cpuTypes));
    put(*top, "hostperfscore", std::move(perf));
    put(*top, "Version", "1.0");
    return top;
}

}  // namespace plistbench
