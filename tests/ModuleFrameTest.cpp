// Bringing the module up and down, and the singleton template.
#include <KLVMsgSession.h>
#include <dlfcn.h>

#include <algorithm>
#include <stdexcept>

#include "Faults.h"
#include "Support.h"

// The calls that reach the base modules, each with the status before it.
static std::string calls;

static void Forward(const std::string& name, int& status) {
    calls += name + " " + std::to_string(status) + ", ";
    const std::string symbol = "_Z" + std::to_string(name.size()) + name + "Ri";
    reinterpret_cast<void (*)(int&)>(dlsym(RTLD_NEXT, symbol.c_str()))(status);
}

// Stands before a pair of the base library.
#define WATCH(name)                                                               \
    void name##_initialize(int& status) { Forward(#name "_initialize", status); } \
    void name##_finalize(int& status) { Forward(#name "_finalize", status); }
WATCH(KLVSimContainers)
WATCH(KLVBasXmlParser)
WATCH(KLVBasShared)
WATCH(KLVBasMorva)
WATCH(KLVBasCoreUtils)
WATCH(KLVBasGenericsLib)
WATCH(KLVBasAlloc)

TEST(Module, OnlyTheOutermostCallsReachTheBaseModules) {
    int status = 5, before = 6;
    calls.clear();
    KLVMsgCommModules_initialize(status);
    KLVMsgCommModules_initialize(status);
    EXPECT_EQ(15, status);
    KLVMsgCommModules_finalize(status);
    EXPECT_EQ(15, status);
    KLVMsgCommModules_finalize(status);
    EXPECT_EQ(5, status);
    std::string up, down;
    for (const char* module : {"KLVSimContainers", "KLVBasXmlParser", "KLVBasShared", "KLVBasMorva",
                               "KLVBasCoreUtils", "KLVBasGenericsLib", "KLVBasAlloc"}) {
        const std::string number = " " + std::to_string(before++) + ", ";
        up += module + ("_initialize" + number);
        down = module + ("_finalize" + number) + down;
    }
    EXPECT_EQ(up + down, calls);
}

TEST(Module, CountsEachPartOnce) {
    int status = 0;
    KLVMsgComm_initialize(status);
    KLVMsgCommModules_specific_initialize(status);
    KLVBasMorva_initialize(status);
    KLVMsgCommModules_initialize(status);
    EXPECT_EQ(10, status);
    KLVMsgCommModules_finalize(status);
    EXPECT_EQ(3, status);
    KLVMsgComm_finalize(status);
    KLVMsgCommModules_specific_finalize(status);
    KLVBasMorva_finalize(status);
    EXPECT_EQ(0, status);
    KLVMsgCommModules_finalize(status);
    KLVMsgCommModules_initialize(status);
    EXPECT_EQ(0, status) << "one finalize too many costs one initialize";
}

TEST(Module, SessionsBringItUpOnce) {
    calls.clear();
    { const KLVMsgSession one, another; }
    EXPECT_EQ(14, std::count(calls.begin(), calls.end(), ',')) << calls;
}

static bool LockIsHeld() { return WatchedMutex::last != nullptr && WatchedMutex::last->held; }

// Its base is not where the object begins.
struct Number {
    virtual ~Number() = default;
    int number = 0;
};
struct Single : Number, KLVBasAtiGlobalSingleton<Single> {
    Single() {
        EXPECT_FALSE(LockIsHeld());
        EXPECT_EQ(this, Instance());
        if (fails) {
            throw std::runtime_error("not now");
        }
        ++alive;
        ++made;
    }
    ~Single() override {
        EXPECT_TRUE(LockIsHeld());
        --alive;
    }
    static inline int alive = 0, made = 0;
    static inline bool fails = false;
};

TEST(Singleton, IsMadeOnceUntilFinalizeDestroysItAndItsLock) {
    Single::Finalize();  // nothing is there yet
    Single::made = 0;
    const int before = Blocks();
    for (int round = 1; round <= 2; ++round) {
        Single::fails = true;
        EXPECT_THROW(Single::Instance(), std::runtime_error);
        Single::fails = false;
        EXPECT_LT(before, Blocks()) << "the lock";
        if (round == 1) {
            Single::Finalize();  // without an instance
            EXPECT_EQ(before, Blocks());
        }
        Single* const instance = Single::Instance();
        EXPECT_EQ(instance, Single::Instance());
        EXPECT_EQ(round, Single::made);
        Single::Finalize();
        EXPECT_EQ(0, Single::alive);
        EXPECT_EQ(before, Blocks()) << "object and lock";
    }
}

TEST(SingletonDeathTest, MisuseIsReportedWithItsLine) {
    const std::string file = ".*KLVBase/ProtectedInterfaces/KLVBasAtiGlobalSingleton:";
    Single::Instance();
    EXPECT_DEATH(Single(), "AssertionFailed:m_instance == 0" + file + "17");
    Single::Finalize();
    EXPECT_DEATH((WatchedMutex::available = false, Single::Instance()),
                 "AssertionFailed:m_lock != 0" + file + "15");
}
