#include <cmath>
#include <ctime>
#include <limits>
#include <map>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include "support/TestSupport.h"
#include <quillcore/platform/PLObject.h>

namespace {

PL_CONSTANT_STRING(kConstName, "Name");
PL_CONSTANT_STRING_STORAGE(kExportedStorage, "Exported");
// The form in which other libraries export constants.
const PLString* const kExported = &kExportedStorage;

static_assert(std::is_trivially_destructible_v<PLConstantString>, "constants must need no destruction");

PLHolder<const PLObject> str(std::string_view s) { return PLString::create(s); }
PLHolder<const PLObject> num(int v) { return PLNumber::create(v); }

TEST(PLObject, ConstantStringsAreImmortalAndEqualToMadeStrings) {
    EXPECT_STREQ(kExported->c_str(), "Exported");
    const std::int32_t immortal = std::numeric_limits<std::int32_t>::max();
    {
        std::vector<PLHolder<const PLString>> copies(10, PLHolder<const PLString>::retain(kConstName));
        EXPECT_EQ(kConstName->retainCount(), immortal);
    }
    EXPECT_EQ(kConstName->retainCount(), immortal);
    EXPECT_TRUE(kConstName->equals(*PLString::create("Name")));
    EXPECT_EQ(kConstName->hash(), PLString::create("Name")->hash());

    auto dict = PLMutableDictionary::create();
    dict->set(PLHolder<const PLObject>::retain(kConstName), num(1));
    EXPECT_NE(dict->get("Name"), nullptr);
}

TEST(PLObject, HolderCopiesRetainAndMovesTransfer) {
    PLHolder<const PLString> a = PLString::create("x");
    EXPECT_EQ(a->retainCount(), 1);
    {
        PLHolder<const PLString> b = a;
        EXPECT_EQ(a->retainCount(), 2);
        PLHolder<const PLObject> c = std::move(b);
        EXPECT_EQ(b, nullptr);
        EXPECT_EQ(a->retainCount(), 2);
        PLHolder<const PLObject> d;
        d = c;
        PLHolder<const PLObject>& alias = d;
        d = alias;  // self-assignment keeps the count
        EXPECT_EQ(a->retainCount(), 3);
    }
    EXPECT_EQ(a->retainCount(), 1);
    const PLString* raw = a.detach();
    EXPECT_FALSE(a);
    auto again = PLHolder<const PLString>::adopt(raw);
    EXPECT_EQ(again->retainCount(), 1);
}

TEST(PLObject, NumbersCompareByValueAcrossKindsAndConvertSaturating) {
    auto i32 = PLNumber::create(std::int32_t{5});
    auto i64 = PLNumber::create(std::int64_t{5});
    auto dbl = PLNumber::create(5.0);
    EXPECT_TRUE(i32->equals(*i64) && i64->equals(*dbl) && dbl->equals(*i32));
    EXPECT_TRUE(i32->hash() == dbl->hash() && i64->hash() == dbl->hash());
    EXPECT_FALSE(PLNumber::create(5.5)->equals(*i32));

    // Exact comparison: 2^53 + 1 has no double, 2^63 no int64.
    EXPECT_FALSE(PLNumber::create(std::int64_t{9007199254740993})->equals(*PLNumber::create(9007199254740992.0)));
    EXPECT_FALSE(
        PLNumber::create(std::numeric_limits<std::int64_t>::max())->equals(*PLNumber::create(9223372036854775808.0)));
    EXPECT_TRUE(
        PLNumber::create(std::numeric_limits<std::int64_t>::min())->equals(*PLNumber::create(-9223372036854775808.0)));

    auto zero = PLNumber::create(0.0), negZero = PLNumber::create(-0.0);
    EXPECT_TRUE(zero->equals(*negZero));
    EXPECT_EQ(zero->hash(), negZero->hash());
    EXPECT_EQ(negZero->hash(), PLNumber::create(0)->hash());
    auto nan1 = PLNumber::create(std::nan("1")), nan2 = PLNumber::create(-std::nan("2"));
    EXPECT_TRUE(nan1->equals(*nan2));
    EXPECT_EQ(nan1->hash(), nan2->hash());
    EXPECT_FALSE(nan1->equals(*zero));
    EXPECT_FALSE(PLNumber::create(1)->equals(*kPLBooleanTrue));

    // Conversions truncate and saturate; types follow the value, not the C++ type.
    EXPECT_EQ(PLNumber::create(3.7)->int32Value(), 3);
    EXPECT_EQ(PLNumber::create(-3.7)->int64Value(), -3);
    EXPECT_EQ(PLNumber::create(1e20)->int32Value(), std::numeric_limits<std::int32_t>::max());
    EXPECT_EQ(PLNumber::create(1e20)->int64Value(), std::numeric_limits<std::int64_t>::max());
    EXPECT_EQ(PLNumber::create(-1e20)->int64Value(), std::numeric_limits<std::int64_t>::min());
    EXPECT_EQ(PLNumber::create(std::nan(""))->int64Value(), 0);
    EXPECT_EQ(PLNumber::create(std::int64_t{5000000000})->int32Value(), std::numeric_limits<std::int32_t>::max());
    EXPECT_EQ(PLNumber::create(std::int64_t{-5000000000})->int32Value(), std::numeric_limits<std::int32_t>::min());

    EXPECT_EQ(PLNumber::create(std::size_t{7})->numberType(), PLNumberType::SInt32);
    EXPECT_EQ(PLNumber::create(std::uint32_t{4000000000})->numberType(), PLNumberType::SInt64);
    EXPECT_EQ(PLNumber::create(std::numeric_limits<std::uint64_t>::max())->numberType(), PLNumberType::Float64);
}

TEST(PLObject, CastsStringsDataAndDates) {
    auto s = PLString::create("abc");
    auto m = PLMutableString::create("ab");
    m->append("c\0d");  // a C string: the NUL ends it
    EXPECT_EQ(m->utf8(), "abc");
    const PLObject* values[] = {s.get(), m.get()};
    EXPECT_EQ(PLDynamicCast<PLString>(values[1]), m.get());
    EXPECT_EQ(PLDynamicCast<PLMutableString>(values[0]), nullptr);
    EXPECT_EQ(PLDynamicCast<PLNumber>(values[0]), nullptr);
    EXPECT_EQ(PLDynamicCast<PLString>(static_cast<const PLObject*>(nullptr)), nullptr);
    EXPECT_EQ(PLMutableCast<PLMutableString>(values[0]), nullptr);
    EXPECT_TRUE(s->equals(*m));  // mutability is not part of the value
    EXPECT_TRUE(PLEqual(nullptr, nullptr));
    EXPECT_FALSE(PLEqual(s.get(), nullptr));
    EXPECT_FALSE(kPLBooleanTrue->equals(*kPLBooleanFalse));

    m->append(std::string_view("\0e", 2));
    EXPECT_EQ(m->size(), 5u);
    EXPECT_EQ(m->c_str()[5], '\0');

    auto data = PLMutableData::create();
    data->append("\x01\x02", 2);
    data->resize(4);
    EXPECT_EQ(data->view(), std::string_view("\x01\x02\x00\x00", 4));
    data->mutableBytes()[3] = 9;
    EXPECT_TRUE(data->equals(*PLData::create("\x01\x02\x00\x09", 4)));
    EXPECT_FALSE(data->equals(*PLData::create("\x01\x02\x00", 3)));

    EXPECT_FALSE(PLDate::create(10.5)->equals(*PLNumber::create(10.5)));
    EXPECT_NEAR(PLAbsoluteTimeGetCurrent(), static_cast<double>(std::time(nullptr)) - kPLAbsoluteTimeIntervalSince1970,
                5.0);
}

TEST(PLObject, URLs) {
    for (const char* bad : {"no scheme here", "/just/a/path", "1http://x"}) EXPECT_FALSE(PLURL::create(bad)) << bad;
    auto u = PLURL::create("NFS://host.example/exports/a%20b/?q=1#f");
    ASSERT_TRUE(u);
    EXPECT_EQ(u->scheme(), "nfs");
    EXPECT_EQ(u->fileSystemPath(), "/exports/a b");

    auto dir = PLURL::createWithPath("/tmp/a b/ü%", true);
    ASSERT_TRUE(dir);
    EXPECT_EQ(dir->text(), "file:///tmp/a%20b/%C3%BC%25/");
    EXPECT_EQ(dir->fileSystemPath(), "/tmp/a b/ü%");
    EXPECT_EQ(PLURL::createWithPath("/x/y/", false)->text(), "file:///x/y");
    EXPECT_EQ(PLURL::createWithPath("/", true)->fileSystemPath(), "/");
    EXPECT_EQ(PLURL::createWithPath("rel", false)->fileSystemPath(),
              (std::filesystem::current_path() / "rel").string());
    EXPECT_FALSE(PLURL::createWithPath("", false));
    EXPECT_TRUE(PLURL::create("file:///a")->equals(*PLURL::createWithPath("/a", false)));
}

TEST(PLObject, ArraysSearchAndChange) {
    auto a = PLMutableArray::create();
    a->append(num(1));
    a->append(PLNumber::create(2.0));
    a->append(nullptr);
    a->append(num(1));
    EXPECT_EQ(a->count(), 3u);
    auto two = num(2);
    EXPECT_EQ(a->indexOf(two.get()), 1);
    EXPECT_EQ(a->countOf(num(1).get()), 2u);
    EXPECT_EQ(a->indexOf(num(9).get()), -1);
    a->insert(3, str("end"));
    a->insert(0, str("start"));
    EXPECT_THROW(a->insert(6, str("x")), std::out_of_range);
    EXPECT_THROW(a->set(5, str("x")), std::out_of_range);
    EXPECT_THROW(a->removeAt(5), std::out_of_range);
    a->set(1, str("one"));
    a->removeAt(2);
    ASSERT_EQ(a->count(), 4u);
    for (auto [i, want] : {std::pair<std::size_t, const char*>{0, "start"}, {1, "one"}, {3, "end"}})
        EXPECT_EQ(static_cast<const PLString*>(a->at(i))->utf8(), want);
    auto x = str("x");
    const PLObject* raw[] = {x.get(), nullptr};
    EXPECT_EQ(PLArray::create(raw, 2)->count(), 1u);
}

TEST(PLObject, DictionariesAddSetRemoveAndLookUpByValue) {
    auto d = PLMutableDictionary::create();
    d->set(str("a"), num(1));
    EXPECT_FALSE(d->add(str("a"), num(2)));
    EXPECT_TRUE(d->add(str("b"), num(2)));
    d->set(str("a"), num(3));
    d->set(nullptr, num(4));
    d->set(str("c"), nullptr);
    EXPECT_EQ(d->count(), 2u);
    EXPECT_EQ(static_cast<const PLNumber*>(d->get("a"))->int32Value(), 3);
    // Keys are values: a number key matches equal numbers of any kind.
    d->set(PLNumber::create(7.0), str("seven"));
    EXPECT_NE(d->get(num(7).get()), nullptr);
    EXPECT_EQ(d->get("7"), nullptr);
    EXPECT_TRUE(d->remove(num(7).get()));
    EXPECT_FALSE(d->remove(num(7).get()));
    EXPECT_FALSE(d->remove(nullptr));

    // Later pairs win, at the first pair's place; null pairs vanish.
    std::vector<PLDictionaryEntry> entries;
    entries.emplace_back(str("k"), num(1));
    entries.emplace_back(str("j"), nullptr);
    entries.emplace_back(str("k"), num(2));
    auto made = PLDictionary::createFromEntries(std::move(entries));
    ASSERT_EQ(made->count(), 1u);
    EXPECT_EQ(static_cast<const PLNumber*>(made->get("k"))->int32Value(), 2);
}

// Exercises the hash index (dictionaries past a few entries) against a
// model, through growth, replacement and removal in random order.
TEST(PLObject, LargeDictionaryAgreesWithAModel) {
    std::mt19937 rng(42);
    auto d = PLMutableDictionary::create();
    std::map<std::string, int> model;
    for (int step = 0; step < 20000; ++step) {
        const std::string key = "key" + std::to_string(rng() % 700);
        const int op = static_cast<int>(rng() % 10);
        if (op < 6) {
            d->set(str(key), num(step));
            model[key] = step;
        } else if (op < 8) {
            EXPECT_EQ(d->remove(str(key).get()), model.erase(key) == 1);
        } else {
            const PLObject* v = d->get(key);
            const auto it = model.find(key);
            ASSERT_EQ(v != nullptr, it != model.end()) << key;
            if (v) {
                EXPECT_EQ(static_cast<const PLNumber*>(v)->int32Value(), it->second);
            }
        }
        ASSERT_EQ(d->count(), model.size());
    }
    for (const auto& [key, value] : model) ASSERT_NE(d->get(key), nullptr) << key;
}

TEST(PLObject, ContainerEqualityAndHashing) {
    auto a = PLMutableDictionary::create();
    auto b = PLMutableDictionary::create();
    for (int i = 0; i < 20; ++i) a->set(str("k" + std::to_string(i)), num(i));
    for (int i = 19; i >= 0; --i) b->set(str("k" + std::to_string(i)), PLNumber::create(static_cast<double>(i)));
    EXPECT_TRUE(a->equals(*b));  // order does not matter, number kinds do not either
    EXPECT_EQ(a->hash(), b->hash());
    b->remove(str("k0").get());
    EXPECT_FALSE(a->equals(*b));

    auto one = num(1), x = str("x");
    const PLObject* items1[] = {one.get(), x.get()};
    auto arr1 = PLArray::create(items1, 2);
    auto arr2 = PLMutableArray::create();
    arr2->append(PLNumber::create(1.0));
    arr2->append(str("x"));
    EXPECT_TRUE(arr1->equals(*arr2));
    EXPECT_EQ(arr1->hash(), arr2->hash());
    EXPECT_FALSE(arr1->equals(*a));
}

TEST(PLObject, ShallowCopiesShareElementsDeepCopiesDoNot) {
    auto inner = PLMutableArray::create();
    inner->append(str("leaf"));
    auto text = PLMutableString::create("changeable");
    auto root = PLMutableDictionary::create();
    root->set(str("inner"), inner);
    root->set(str("text"), text);
    root->set(str("n"), num(1));

    auto shallow = PLDictionaryCreateMutableCopy(root.get());
    shallow->set(str("extra"), num(2));
    EXPECT_EQ(root->get("extra"), nullptr);
    auto frozen = PLDictionaryCreateCopy(root.get());
    EXPECT_FALSE(frozen->isMutable());
    EXPECT_TRUE(frozen->get("inner") == inner.get() && shallow->get("inner") == inner.get());
    EXPECT_FALSE(PLArrayCreateCopy(nullptr));

    auto deep = PLPropertyListCreateDeepCopy(root.get(), PLMutability::Immutable);
    ASSERT_TRUE(deep && deep->equals(*root));
    const auto* deepDict = PLDynamicCast<PLDictionary>(deep.get());
    EXPECT_FALSE(deepDict->isMutable() || deepDict->get("inner")->isMutable() || deepDict->get("text")->isMutable());
    EXPECT_EQ(static_cast<const PLArray*>(deepDict->get("inner"))->at(0), inner->at(0));  // immutable leaf shared
    text->assign("changed");
    EXPECT_EQ(static_cast<const PLString*>(deepDict->get("text"))->utf8(), "changeable");

    auto leaves = PLPropertyListCreateDeepCopy(root.get(), PLMutability::MutableContainersAndLeaves);
    const auto* leavesDict = PLMutableCast<PLMutableDictionary>(leaves.get());
    ASSERT_NE(leavesDict, nullptr);
    auto* leavesInner = PLMutableCast<PLMutableArray>(leavesDict->get("inner"));
    ASSERT_TRUE(leavesInner && leavesInner->at(0)->isMutable());
    for (const auto& [key, value] : leavesDict->entries()) EXPECT_FALSE(key->isMutable());

    auto containers = PLPropertyListCreateDeepCopy(root.get(), PLMutability::MutableContainers);
    EXPECT_TRUE(containers->isMutable());
    EXPECT_FALSE(static_cast<const PLDictionary*>(containers.get())->get("text")->isMutable());
    EXPECT_FALSE(PLPropertyListCreateDeepCopy(nullptr, PLMutability::Immutable));
}

// Holders of one value on many threads at once; run under TSan.
TEST(PLObject, HoldersMayLiveOnManyThreads) {
    auto shared = PLMutableDictionary::create();
    for (int i = 0; i < 50; ++i) shared->set(str("k" + std::to_string(i)), num(i));
    const PLHolder<const PLDictionary> frozen = PLDictionaryCreateCopy(shared.get());
    shared.reset();
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&frozen] {
            for (int i = 0; i < 2000; ++i) {
                PLHolder<const PLDictionary> mine = frozen;
                PLHolder<const PLObject> value = PLHolder<const PLObject>::retain(mine->get("k7"));
                auto constant = PLHolder<const PLString>::retain(kConstName);
                if (!value || !value->equals(*PLNumber::create(7))) std::abort();
            }
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(frozen->retainCount(), 1);
    EXPECT_EQ(frozen->get("k7")->retainCount(), 1);
}

}  // namespace
