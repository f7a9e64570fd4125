// ExampleService: the executable of ExampleService.bundle, a reference
// cluster service. It accepts exactly the command line the library builds for
// a service instance (see ServiceArguments.h), sets up its standard streams
// as every service does, and runs until SIGTERM.
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "../common/StopSignals.h"
#include "ExampleService.h"
#include "ServiceArguments.h"
#include <ferrocore/CException.h>
#include <quillcore/control/QuillConfig.h>
#include <quillcore/platform/Bundle.h>
#include <quillcore/servicemanager/CServiceUtil.h>

int main(int argc, char** argv) {
    example::blockStopSignals();
    std::string error;
    const auto args = example::parseServiceArguments(std::vector<std::string>(argv, argv + argc), error);
    if (!args) {
        std::fprintf(stderr, "ExampleService: %s\n%s\n", error.c_str(), example::serviceUsage());
        return 2;
    }

    // The service's identity comes from the bundle around the executable.
    std::error_code ec;
    const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe", ec);
    const auto bundle = ec ? std::nullopt : quill::platform::CBundle::open(self.parent_path().string());
    const PLHolder<const PLString> kind =
        PLHolder<const PLString>::adopt(bundle ? getServiceKindFromBundle(&*bundle) : nullptr);
    if (!kind) {
        std::fprintf(stderr, "ExampleService: no \"CorvaneServiceKind\" in the bundle around %s\n", self.c_str());
        return 1;
    }
    example::ServiceIdentity identity{kind->str(), "ExampleService", "1"};
    if (const auto* name = PLDynamicCast<PLString>(bundle->infoValue("BundleName"))) identity.name = name->str();
    if (const auto* version = PLDynamicCast<PLString>(bundle->infoValue("BundleVersion")))
        identity.version = version->str();

    try {
        quill::CServiceUtil::setupStdStreams();
    } catch (const ferrocore::CException& e) {
        std::fprintf(stderr, "ExampleService: can't read the cluster configuration: %s\n", e.what());
        return 1;
    }
    return example::runService(*args, identity);
}
