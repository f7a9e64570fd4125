// Reference counting: handles own exactly one reference each, the object dies
// with the last one, also when handles are copied and dropped on many
// threads at once.
#include <atomic>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <ferrocore/CSharedObject.h>

namespace ferrocore {
namespace {

std::atomic<int> gLive{0};

class CTracked : public CSharedObject {
public:
    explicit CTracked(int v) : value(v) { ++gLive; }
    int value;

protected:
    ~CTracked() override { --gLive; }
};

// Derives virtually, as the logger classes do.
class CVirtualBase : public virtual CSharedObject {
public:
    CVirtualBase() { ++gLive; }

protected:
    ~CVirtualBase() override { --gLive; }
};
class CVirtualLeaf final : public CVirtualBase, public virtual CSharedObject {};

TEST(SharedObjectTest, EachHandleOwnsOneReferenceAndTheLastDestroys) {
    ASSERT_EQ(gLive, 0);
    {
        CSharedObjectRef<CTracked> a = makeShared<CTracked>(3);
        CSharedObjectRef<CTracked> b = a;
        CSharedObjectRef<CTracked> c = std::move(b);
        EXPECT_FALSE(b);
        EXPECT_EQ(a->retainCount(), 2);
        c.reset();
        EXPECT_EQ(a->retainCount(), 1);
        // A handle made from a bare pointer to a held object adds a reference.
        CSharedObjectRef<CTracked> fromPointer(a.get());
        EXPECT_EQ(a->retainCount(), 2);
        a = nullptr;
        EXPECT_EQ(gLive, 1);
        EXPECT_EQ(fromPointer->value, 3);

        // Conversions to a virtual or const base copy or move the reference.
        CSharedObjectRef<CVirtualLeaf> leaf = makeShared<CVirtualLeaf>();
        CSharedObjectRef<CVirtualBase> base = leaf;
        CSharedObjectRef<const CVirtualBase> constBase = std::move(leaf);
        EXPECT_FALSE(leaf);
        EXPECT_EQ(constBase->retainCount(), 2);
        EXPECT_EQ(gLive, 2);
    }
    EXPECT_EQ(gLive, 0);
}

TEST(SharedObjectTest, HandlesCopiedAcrossThreads) {
    CSharedObjectRef<CTracked> shared = makeShared<CTracked>(1);
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([shared] {
            for (int i = 0; i < 10000; ++i) {
                CSharedObjectRef<CTracked> copy = shared;
                CSharedObjectRef<CTracked> other = copy;
            }
        });
    }
    for (std::thread& t : threads) t.join();
    EXPECT_EQ(shared->retainCount(), 1);
    shared.reset();
    EXPECT_EQ(gLive, 0);
}

}  // namespace
}  // namespace ferrocore
