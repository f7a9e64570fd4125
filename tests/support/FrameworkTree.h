// A fake installation of the cluster frameworks, and a host whose loaded
// objects are whatever the test says: for everything that finds its files
// from where the library is loaded.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include <quillcore/platform/Host.h>

namespace quilltest {

// Makes `directory` the library's bundle (an Info.plist with its identifier
// and a stand-in library file) and returns the library's path.
std::filesystem::path makeQuillCoreBundle(const std::filesystem::path& directory);

// root/Frameworks/Corvane.framework/{Resources/,Versions/A/Frameworks/QuillCore.framework/}
class FrameworkTree {
public:
    explicit FrameworkTree(const std::filesystem::path& root)
        : _frameworks(root / "Frameworks"),
          _library(makeQuillCoreBundle(corvaneDir() / "Versions/A/Frameworks/QuillCore.framework")) {
        std::filesystem::create_directories(resourcesDir());
    }
    std::filesystem::path frameworksDir() const { return _frameworks; }
    std::filesystem::path corvaneDir() const { return _frameworks / "Corvane.framework"; }
    std::filesystem::path resourcesDir() const { return corvaneDir() / "Resources"; }
    const std::filesystem::path& libraryPath() const { return _library; }

private:
    std::filesystem::path _frameworks;
    std::filesystem::path _library;
};

// Reports `images` as the loaded program and shared objects; every other
// call goes to the real host.
class LoadedImagesHost : public quill::platform::CHostWrapper {
public:
    explicit LoadedImagesHost(std::vector<std::string> images) : images(std::move(images)) {}
    std::vector<std::string> images;
    std::vector<std::string> loadedImagePaths() override { return images; }
};

}  // namespace quilltest
