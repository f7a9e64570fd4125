#include "support/TestSupport.h"

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include <unistd.h>

namespace quilltest {

namespace fs = std::filesystem;

TempDir::TempDir(const std::string& prefix) {
    std::string pattern = (testRoot() / (prefix + ".XXXXXX")).string();
    if (!mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed for " + pattern);
    _path = pattern;
}

TempDir::~TempDir() {
    std::error_code ec;
    fs::remove_all(_path, ec);
}

ScopedEnv::ScopedEnv(std::string name, std::optional<std::string> value) : _name(std::move(name)) {
    if (const char* old = getenv(_name.c_str())) _old = old;
    if (value)
        setenv(_name.c_str(), value->c_str(), 1);
    else
        unsetenv(_name.c_str());
}

ScopedEnv::~ScopedEnv() {
    if (_old)
        setenv(_name.c_str(), _old->c_str(), 1);
    else
        unsetenv(_name.c_str());
}

std::string readFile(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw std::runtime_error("cannot read " + path.string());
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

void writeFile(const fs::path& path, const std::string& contents) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    if (!out) throw std::runtime_error("cannot write " + path.string());
    out << contents;
}

const fs::path& testRoot() {
    static const fs::path root = [] {
        std::string pattern = (fs::temp_directory_path() / "quilltest.XXXXXX").string();
        if (!mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
        return fs::path(pattern);
    }();
    return root;
}

fs::path consoleLogPath() { return testRoot() / "console.log"; }

fs::path sourceDir() {
    const char* dir = getenv("QUILL_TEST_SOURCE_DIR");
    return dir ? fs::path(dir) : fs::current_path();
}

}  // namespace quilltest
