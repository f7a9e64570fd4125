#include <cstring>
#include <string>
#include <string_view>

#include <ferrocore/CException.h>
#include <quillcore/process/CArgsBuilder.h>

namespace quill {

namespace {

char* copyText(const char* text) {
    const std::size_t length = std::strlen(text);
    char* copy = new char[length + 1];
    std::memcpy(copy, text, length + 1);
    return copy;
}

}  // namespace

CArgsBuilder::CArgsBuilder(int capacity)
    : _capacity(capacity > 0 ? static_cast<std::uint32_t>(capacity) : 0u), _vector(new char*[_capacity + 1]) {
    _vector[0] = nullptr;
}

CArgsBuilder::~CArgsBuilder() { clear(); }

void CArgsBuilder::grow() {
    const std::uint32_t capacity = _size == 0 ? 1u : _size * 2u;
    std::unique_ptr<char*[]> vector(new char*[capacity + 1]);
    std::memcpy(vector.get(), _vector.get(), sizeof(char*) * _size);
    vector[_size] = nullptr;
    _vector = std::move(vector);
    _capacity = capacity;
}

void CArgsBuilder::addArg(const char* text) {
    if (!text) return;
    std::unique_ptr<char[]> copy(copyText(text));
    if (_size == _capacity) grow();
    _vector[_size] = copy.release();
    ++_size;
    _vector[_size] = nullptr;
}

void CArgsBuilder::addArgs(const char* const* list) {
    if (!list) return;
    for (; *list; ++list) addArg(*list);
}

void CArgsBuilder::addArgs(unsigned count, const char* const* list) {
    if (!list) return;
    for (unsigned i = 0; i < count && list[i]; ++i) addArg(list[i]);
}

void CArgsBuilder::addArgs(const std::vector<ferrocore::CStringRef>& list) {
    for (const ferrocore::CStringRef& text : list) {
        if (text) addArg(text->c_str());
    }
}

int CArgsBuilder::findArg(const char* name) const noexcept {
    if (!name || _size == 0) return -1;
    const std::size_t length = std::strlen(name);
    for (std::uint32_t i = 0; i < _size; ++i) {
        if (std::strncmp(_vector[i], name, length) == 0 && _vector[i][length] == '=') return static_cast<int>(i);
    }
    return -1;
}

void CArgsBuilder::replaceArg(int index, const char* text) {
    if (index < 0 || static_cast<std::uint32_t>(index) >= _size || !text) return;
    char* copy = copyText(text);
    delete[] _vector[index];
    _vector[index] = copy;
}

void CArgsBuilder::clear() noexcept {
    while (_size > 0) {
        --_size;
        delete[] _vector[_size];
    }
    _vector[0] = nullptr;
}

CArgsBuilder::operator ferrocore::CStringRef() const {
    if (_size == 0) return nullptr;
    std::string line;
    for (std::uint32_t i = 0; i < _size; ++i) {
        if (i > 0) line += ' ';
        line += _vector[i];
    }
    return ferrocore::CString::create(std::move(line));
}

CArgsBuilder::operator std::vector<ferrocore::CStringRef>() const {
    std::vector<ferrocore::CStringRef> strings;
    strings.reserve(_size);
    for (std::uint32_t i = 0; i < _size; ++i) strings.push_back(ferrocore::CString::create(_vector[i]));
    return strings;
}

CArgsBuilder::operator PLHolder<const PLArray>() const {
    std::vector<PLHolder<const PLObject>> values;
    values.reserve(_size);
    for (std::uint32_t i = 0; i < _size; ++i) values.emplace_back(PLString::create(std::string_view(_vector[i])));
    PLHolder<const PLArray> array = PLArray::createFromValues(std::move(values));
    if (!array) throw ferrocore::CNullPointerException("Error: args is null!");
    return array;
}

}  // namespace quill
