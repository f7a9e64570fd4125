#include <mutex>
#include <optional>

#include "quillcore/storage/StorageBundle.h"
#include <ferrocore/Format.h>
#include <quillcore/platform/Bundle.h>
#include <quillcore/storage/ISharedStorage.h>

namespace quill {

namespace {

constexpr const char* kQuillCoreBundleIdentifier = "com.tessaly.corvane.QuillCore";

std::mutex& bundleMutex() {
    static std::mutex mutex;
    return mutex;
}

std::optional<platform::CBundle>& cachedBundle() {
    static std::optional<platform::CBundle> bundle;
    return bundle;
}

}  // namespace

namespace storage::detail {

void forgetLibraryBundle() {
    std::lock_guard lock(bundleMutex());
    cachedBundle().reset();
}

}  // namespace storage::detail

ISharedStorageException::ISharedStorageException(int type, std::uint8_t code, std::string message)
    : CException(static_cast<int>(errorValueFor(type, code)), std::move(message)), _type(type), _code(code) {}

ISharedStorageException::ISharedStorageException(int type, std::uint8_t code, std::string_view format,
                                                 const std::string& argument)
    : ISharedStorageException(type, code, ferrocore::formatString(format, argument)) {}

ISharedStorageException::~ISharedStorageException() = default;

ISharedStoragePublisher::~ISharedStoragePublisher() = default;
ISharedStorageSubscriber::~ISharedStorageSubscriber() = default;
ISharedStorage::~ISharedStorage() = default;

ferrocore::CStringRef ISharedStorage::localizedStringForKey(std::string_view key) {
    std::optional<platform::CBundle> bundle;
    {
        std::lock_guard lock(bundleMutex());
        if (!cachedBundle()) cachedBundle() = platform::CBundle::loaded(kQuillCoreBundleIdentifier);
        bundle = cachedBundle();
    }
    if (!bundle) throw ISharedStorageException(kSharedStorageResourceError, 2, "QuillCore.framework not found");
    const PLHolder<const PLString> text = bundle->localizedString(key);
    return ferrocore::CString::create(text ? text->utf8() : key);
}

}  // namespace quill
