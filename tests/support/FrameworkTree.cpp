#include "support/FrameworkTree.h"

#include "support/TestSupport.h"

namespace quilltest {

std::filesystem::path makeQuillCoreBundle(const std::filesystem::path& directory) {
    std::filesystem::create_directories(directory);
    writeFile(directory / "Info.plist",
              "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<dict>\n"
              "<key>BundleExecutable</key><string>libquillcore.so.303</string>\n"
              "<key>BundleIdentifier</key><string>com.tessaly.corvane.QuillCore</string>\n</dict>\n</plist>\n");
    writeFile(directory / "libquillcore.so.303", "");
    return directory / "libquillcore.so.303";
}

}  // namespace quilltest
