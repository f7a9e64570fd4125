// Facts about the running system that the Linux host reads from the kernel's
// files and the dynamic loader; kept apart from LinuxHost.cpp so that the
// parsing stands on its own.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include <quillcore/platform/Host.h>

namespace quill::platform::linuxhost {

// Reads the processor facts from uname, /proc/cpuinfo and
// /sys/devices/system/cpu/cpu0/cpufreq/. The nominal frequency is the first
// of these that is known:
// 1. cpufreq's "base_frequency" (what the processor is rated at; present with
//    the intel_pstate and amd-pstate drivers);
// 2. the rating in the brand string ("... @ 2.40GHz");
// 3. "cpu MHz" of /proc/cpuinfo (the current frequency; under a hypervisor
//    usually the host's nominal one);
// 4. cpufreq's "cpuinfo_max_freq".
// The bounds are cpufreq's "cpuinfo_min_freq" and "cpuinfo_max_freq".
CProcessorFacts readProcessorFacts();

// Fills the identification fields of `facts` (vendor, family, model, brand
// and the nominal frequency from steps 2 and 3 above) from the text of
// /proc/cpuinfo: the first processor's block only.
void parseCPUInfo(std::string_view text, CProcessorFacts& facts);

// The paths of the loaded program and shared objects (see
// IHost::loadedImagePaths).
std::vector<std::string> readLoadedImagePaths();

}  // namespace quill::platform::linuxhost
