#include "yx/base.h"

#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "yx/string.h"

namespace {

using yx::cast;
using yx::CBase;
using yx::makeObject;
using yx::P;

class IAnimal : public virtual yx::IBase {
public:
    virtual int getLegs() const = 0;
};

class IPet : public virtual yx::IBase {
public:
    virtual int getAge() const = 0;
};

/// Counts its calls and reports its end.
class Dog : public CBase, public virtual IAnimal, public virtual IPet {
public:
    explicit Dog(int* endCount = nullptr) : m_endCount(endCount) {}
    ~Dog() override {
        if (m_endCount)
            ++*m_endCount;
    }

    int getLegs() const override { return 4; }
    int getAge() const override { return 7; }

    void addRef() const override {
        ++addRefCalls;
        CBase::addRef();
    }
    void release() const override {
        ++releaseCalls;
        CBase::release();
    }

    mutable int addRefCalls = 0;
    mutable int releaseCalls = 0;

private:
    int* m_endCount;
};

class Puppy : public Dog {
public:
    using Dog::Dog;
};

/// Refuses casts to one type.
class ShyDog : public Dog {
public:
    bool checkCastAllowed(std::type_info const& type) const override {
        askedFor = &type;
        return type != typeid(Dog);
    }
    mutable std::type_info const* askedFor = nullptr;
};

TEST(P, IsNullAtFirst) {
    P<Dog> const pointer;
    EXPECT_EQ(nullptr, pointer.get());
    EXPECT_FALSE(pointer);
    EXPECT_TRUE(pointer == nullptr);
    EXPECT_TRUE(P<Dog>(nullptr) == pointer);
}

TEST(P, MakeObjectTakesTheFirstReferenceOverWithoutAddRef) {
    int endCount = 0;
    {
        P<Dog> const dog = makeObject<Dog>(&endCount);
        EXPECT_EQ(0, dog->addRefCalls);
        EXPECT_EQ(0, dog->releaseCalls);
    }
    EXPECT_EQ(1, endCount);
}

TEST(P, AdoptTakesAReferenceOver) {
    int endCount = 0;
    {
        auto const dog = P<Dog>::adopt(new (CBase::RawNew{}) Dog(&endCount));
        EXPECT_EQ(0, dog->addRefCalls);
    }
    EXPECT_EQ(1, endCount);
    EXPECT_FALSE(P<Dog>::adopt(nullptr));
}

TEST(P, RawPointerGainsAReference) {
    int endCount = 0;
    P<Dog> first = makeObject<Dog>(&endCount);
    P<Dog> second = first.get();
    EXPECT_EQ(1, first->addRefCalls);
    first.reset();
    EXPECT_EQ(0, endCount);
    second.reset();
    EXPECT_EQ(1, endCount);
}

TEST(P, CopySharesAndMoveHandsOver) {
    int endCount = 0;
    P<Dog> first = makeObject<Dog>(&endCount);
    P<Dog> copy = first;
    EXPECT_EQ(1, first->addRefCalls);
    P<Dog> moved = std::move(copy);
    EXPECT_EQ(nullptr, copy.get());
    EXPECT_EQ(first.get(), moved.get());
    EXPECT_EQ(1, first->addRefCalls);
    EXPECT_EQ(0, first->releaseCalls);
    moved = nullptr;
    EXPECT_EQ(1, first->releaseCalls);
    first = nullptr;
    EXPECT_EQ(1, endCount);
}

TEST(P, SelfAssignmentLeavesTheObjectAlive) {
    int endCount = 0;
    P<Dog> dog = makeObject<Dog>(&endCount);
    P<Dog> const& same = dog;
    dog = same;
    EXPECT_EQ(0, endCount);
    ASSERT_TRUE(dog);
    EXPECT_EQ(4, dog->getLegs());
    dog = dog.get();
    EXPECT_EQ(0, endCount);
    P<Dog>& alias = dog;
    dog = std::move(alias);
    EXPECT_EQ(0, endCount);
    ASSERT_TRUE(dog);
    dog.reset();
    EXPECT_EQ(1, endCount);
}

TEST(P, AssignmentAddsToTheNewObjectBeforeItReleasesTheOldOne) {
    /// At its end, looks whether the object assigned in its place is referenced already.
    class Watcher : public CBase {
    public:
        explicit Watcher(Dog const* next, int* addRefCallsAtEnd)
            : m_next(next), m_addRefCallsAtEnd(addRefCallsAtEnd) {}
        ~Watcher() override { *m_addRefCallsAtEnd = m_next->addRefCalls; }

    private:
        Dog const* m_next;
        int* m_addRefCallsAtEnd;
    };

    P<Dog> const next = makeObject<Dog>();
    int addRefCallsAtEnd = -1;
    P<CBase> pointer = makeObject<Watcher>(next.get(), &addRefCallsAtEnd);
    pointer = P<CBase>(next);
    EXPECT_EQ(1, addRefCallsAtEnd);
}

TEST(P, ResetIsNullBeforeTheObjectEnds) {
    class Node : public CBase {
    public:
        Node(P<CBase>* owner, bool* ownerWasNull) : m_owner(owner), m_ownerWasNull(ownerWasNull) {}
        ~Node() override { *m_ownerWasNull = !*m_owner; }

    private:
        P<CBase>* m_owner;
        bool* m_ownerWasNull;
    };

    P<CBase> owner;
    bool ownerWasNull = false;
    owner = makeObject<Node>(&owner, &ownerWasNull);
    owner.reset();
    EXPECT_TRUE(ownerWasNull);
}

TEST(P, UpcastsImplicitly) {
    P<Puppy> const puppy = makeObject<Puppy>();
    P<Dog> const dog = puppy;
    P<IAnimal> const animal = puppy;
    P<yx::IBase> const base = animal;
    P<IPet> const moved = P<Puppy>(puppy);
    EXPECT_EQ(4, animal->getLegs());
    EXPECT_EQ(7, moved->getAge());
    EXPECT_TRUE(dog == puppy);
    EXPECT_TRUE(animal == base);
    EXPECT_TRUE(puppy == animal);
}

TEST(P, ComparesByAddress) {
    P<Dog> const first = makeObject<Dog>();
    P<Dog> const second = makeObject<Dog>();
    EXPECT_TRUE(first == first);
    EXPECT_TRUE(first != second);
    EXPECT_TRUE(first != nullptr);
    EXPECT_FALSE(nullptr == first);
}

TEST(Cast, GivesTheDerivedObject) {
    P<yx::IBase> const base = makeObject<Puppy>();
    P<Dog> const dog = cast<Dog>(base);
    ASSERT_TRUE(dog);
    EXPECT_EQ(7, dog->getAge());
    EXPECT_TRUE(cast<Puppy>(dog));
    EXPECT_TRUE(cast<IPet>(cast<IAnimal>(base)));
}

TEST(Cast, OfATypeThatDoesNotFitIsEmpty) {
    P<yx::IBase> const base = makeObject<Dog>();
    EXPECT_FALSE(cast<Puppy>(base));
    EXPECT_FALSE(cast<yx::String>(base));
}

TEST(Cast, OfNullIsEmpty) {
    EXPECT_FALSE(cast<Dog>(P<yx::IBase>()));
}

TEST(Cast, AsksTheObjectForTheTargetTypeAndObeysANo) {
    P<ShyDog> const dog = makeObject<ShyDog>();
    P<IAnimal> const animal = dog;
    EXPECT_FALSE(cast<Dog>(animal));
    ASSERT_NE(nullptr, dog->askedFor);
    EXPECT_TRUE(*dog->askedFor == typeid(Dog));
    EXPECT_TRUE(cast<IPet>(animal));
    EXPECT_TRUE(*dog->askedFor == typeid(IPet));
}

TEST(Cast, IsAllowedToEveryTypeByDefault) {
    Dog const dog;
    EXPECT_TRUE(dog.checkCastAllowed(typeid(Dog)));
    EXPECT_TRUE(dog.checkCastAllowed(typeid(int)));
}

TEST(CBase, CopyDoesNotCopyTheCount) {
    int endCount = 0;
    P<Dog> const original = makeObject<Dog>(&endCount);
    P<Dog> const second = original;
    P<Dog> copy = makeObject<Dog>(*original);
    copy.reset();
    EXPECT_EQ(1, endCount);
}

TEST(CBase, AssignmentDoesNotCopyTheCount) {
    int targetEnds = 0;
    int sourceEnds = 0;
    P<Dog> target = makeObject<Dog>(&targetEnds);
    P<Dog> source = makeObject<Dog>(&sourceEnds);
    P<Dog> const secondSource = source;
    static_cast<CBase&>(*target) = static_cast<CBase const&>(*source);
    target.reset();
    EXPECT_EQ(1, targetEnds);
    source.reset();
    EXPECT_EQ(0, sourceEnds);
}

TEST(CBase, OnTheStackOutlivesPointersToIt) {
    int endCount = 0;
    {
        Dog dog(&endCount);
        {
            P<Dog> const pointer = &dog;
            P<IAnimal> const second = pointer;
            EXPECT_EQ(4, second->getLegs());
        }
        EXPECT_EQ(0, endCount);
        EXPECT_EQ(dog.addRefCalls, dog.releaseCalls);
    }
    EXPECT_EQ(1, endCount);
}

TEST(CBase, ReleaseToZeroCallsDeleteThisOnce) {
    class Kept : public CBase {
    public:
        int deleteThisCalls = 0;

    protected:
        void deleteThis() override { ++deleteThisCalls; }
    };

    Kept kept;
    kept.addRef();
    kept.release();
    EXPECT_EQ(0, kept.deleteThisCalls);
    kept.release();
    EXPECT_EQ(1, kept.deleteThisCalls);
}

TEST(CBase, ConstructorThatThrowsGivesItsMemoryBack) {
    class Failing : public CBase {
    public:
        Failing() { throw 7; }
    };
    EXPECT_THROW(makeObject<Failing>(), int); // the leak checker of a sanitizer build looks on
}

TEST(CBase, CountIsSafeAgainstConcurrentUsers) {
    class Shared : public CBase {
    public:
        explicit Shared(int* endCount) : m_endCount(endCount) {}
        ~Shared() override { ++*m_endCount; }

    private:
        int* m_endCount;
    };

    int endCount = 0;
    P<Shared> shared = makeObject<Shared>(&endCount);
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([shared] {
            for (int n = 0; n < 20000; ++n)
                P<Shared> const copy = shared;
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(0, endCount);
    shared.reset();
    EXPECT_EQ(1, endCount);
}

#if !defined(NDEBUG)

TEST(CBaseDeathTest, AReferenceMadeByTheObjectsOwnDestructorIsCaught) {
    class Clinging : public CBase {
    public:
        ~Clinging() override { P<CBase> const self(this); }
    };
    EXPECT_DEATH(makeObject<Clinging>(), "a reference to an object that is being destroyed");
}

#endif

} // namespace
