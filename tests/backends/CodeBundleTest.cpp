#include "backends/CodeBundle.h"

#include "tests/support/RootFixture.h"

#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>

namespace quorvane {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view kSelector = "sendMessageWithMethod:respCode:dict:";

class CodeBundleTest : public RootFixture {
  protected:
    static const QuorvaneClass* classOfGoodBundle(std::string_view name) {
        return classNamed(loadCodeBundle(QUORVANE_BUNDLE_GOOD), name);
    }

    /// What the functions of the good bundle did last.
    static std::string whatHappened() {
        void* library = ::dlopen(QUORVANE_BUNDLE_GOOD, RTLD_NOW | RTLD_NOLOAD);
        const auto function = reinterpret_cast<const char* (*)()>(::dlsym(library, "whatHappened"));
        const std::string text = function();
        ::dlclose(library);
        return text;
    }

    static bool isRefused(const std::string& path, const std::string& reason) {
        const std::string line = "<3>loadCodeBundle: Cannot load " + path + ": " + reason;
        const auto before = logged(line);
        return loadCodeBundle(path) == nullptr && logged(line) == before + 1;
    }
};

TEST_F(CodeBundleTest, ABundleIsLoadedOnceAndKept) {
    const std::string copy = _root / "copy.so";
    fs::copy_file(QUORVANE_BUNDLE_GOOD, copy);
    const QuorvaneCodeBundle* bundle = loadCodeBundle(copy);
    ASSERT_NE(bundle, nullptr);
    fs::remove(copy);
    EXPECT_EQ(loadCodeBundle(copy), bundle);
    EXPECT_NE(loadCodeBundle(QUORVANE_BUNDLE_GOOD), bundle);
    EXPECT_EQ(logged("<"), 0u);
}

TEST_F(CodeBundleTest, WhatIsNoBundleCostsALogLine) {
    const std::string absent = _root / "absent.so";
    EXPECT_TRUE(isRefused(absent, "No such file or directory"));
    EXPECT_TRUE(isRefused(_root, "it is no file"));
    ASSERT_EQ(::mkfifo(absent.c_str(), 0600), 0);
    EXPECT_TRUE(isRefused(absent, "it is no file"));
    fs::remove(absent);
    for (const char* text : {"", "#!/bin/sh\n", "\177ELF"}) {
        write("absent.so", text);
        EXPECT_TRUE(isRefused(absent, absent));
    }
    EXPECT_TRUE(isRefused("/proc/self/exe", "")) << "a program is no shared object";

    EXPECT_TRUE(isRefused(QUORVANE_BUNDLE_WITHOUT_BUNDLE, "it exports no quorvaneCodeBundle"));
    EXPECT_TRUE(isRefused(QUORVANE_BUNDLE_OTHER_VERSION, "its version is 2, not 1"));
    EXPECT_EQ(classNamed(nullptr, "Keeping"), nullptr);

    const std::string foreign = _root / "foreign.so";
    fs::copy_file(QUORVANE_BUNDLE_GOOD, foreign);
    const bool isRoot = ::chown(foreign.c_str(), 12345, 12345) == 0;
    EXPECT_TRUE(!isRoot || isRefused(foreign, "it belongs to user 12345"));
}

TEST_F(CodeBundleTest, AnObjectAnswersTheOperationsOfItsClassAndIsGivenBack) {
    auto object = CodeObject::init(classOfGoodBundle("Keeping"));
    ASSERT_NE(object, nullptr);
    EXPECT_EQ(object->description(), "<Keeping>");
    EXPECT_EQ(object->operationWithSelector("sendMessage"), nullptr);
    EXPECT_EQ(object->operationWithSelector("absent:"), nullptr);
    const QuorvaneOperation* operation = object->operationWithSelector(kSelector);
    ASSERT_NE(operation, nullptr);
    object->invoke(*operation, 65535, 200, Data{'b', 'y', 't', 'e', 's'});
    EXPECT_EQ(whatHappened(), "65535 200 bytes (5)");
    object->invoke(*operation, 1, 2, {});
    EXPECT_EQ(whatHappened(), "1 2 null (0)");
    object.reset();
    EXPECT_EQ(whatHappened(), "dealloc");
}

TEST_F(CodeBundleTest, AClassMayMakeNothingAndAnswerNothingAndThrow) {
    for (const char* name : {"keeping", "", "Barren", "Uninitialisable"})
        EXPECT_EQ(CodeObject::init(classOfGoodBundle(name)), nullptr) << name;
    const auto mute = CodeObject::init(classOfGoodBundle("Mute"));
    ASSERT_NE(mute, nullptr);
    EXPECT_EQ(mute->operationWithSelector(kSelector), nullptr);
    EXPECT_EQ(logged("<"), 0u);

    EXPECT_EQ(CodeObject::init(classOfGoodBundle("Unmakeable")), nullptr);
    EXPECT_EQ(logged("<3>contained: init of <Unmakeable> threw: no room"), 1u);
    auto object = CodeObject::init(classOfGoodBundle("Throwing"));
    object->invoke(*object->operationWithSelector(kSelector), 1, 2, {});
    EXPECT_EQ(logged("<3>contained: sendMessageWithMethod:respCode:dict: of <Throwing> threw: no\\nmemory"),
              1u);
    object.reset();
    EXPECT_EQ(logged("<3>contained: dealloc of <Throwing> threw something"), 1u);
}

}  // namespace
}  // namespace quorvane
