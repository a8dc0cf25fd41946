#include "platform/linux/SharedLibrary.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

using platform::LibraryFunction;
using platform::SharedLibrary;

namespace {

using Root = double(double);

struct Mathematics {
    SharedLibrary library{"libm.so.6"};
    LibraryFunction<Root> squareRoot{library, "sqrt"};
};

struct MathematicsWithAGap {
    SharedLibrary library{"libm.so.6"};
    LibraryFunction<Root> squareRoot{library, "sqrt"};
    LibraryFunction<Root> unheardOf{library, "unheard_of"};
};

struct NoLibrary {
    SharedLibrary library{"libnobody-has-this.so.9"};
    LibraryFunction<Root> squareRoot{library, "sqrt"};
};

// Is made for as long as another thread may take to come by and make a second one, or at most a moment.
struct SlowMathematics {
    static inline std::atomic<int> made{0};

    SlowMathematics() {
        ++made;
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(100);
        while (made == 1 && std::chrono::steady_clock::now() < end)
            std::this_thread::yield();
    }

    SharedLibrary library{"libm.so.6"};
};

} // namespace

TEST(SharedLibrary, ItsFunctionsAreCalledLikeTheirOwn) {
    std::string error;
    const auto* functions = platform::loadedFunctions<Mathematics>(error);
    ASSERT_TRUE(functions);
    EXPECT_EQ(error, "");
    EXPECT_EQ(functions->squareRoot(9), 3);
}

TEST(SharedLibrary, IsLoadedOnce) {
    std::string error;
    EXPECT_EQ(platform::loadedFunctions<Mathematics>(error), platform::loadedFunctions<Mathematics>(error));
}

TEST(SharedLibrary, TwoThreadsThatNeedItFirstLoadItOnce) {
    const SlowMathematics* found[2] = {};
    std::thread threads[2];
    for (int i = 0; i < 2; ++i)
        threads[i] = std::thread([&found, i] {
            std::string error;
            found[i] = platform::loadedFunctions<SlowMathematics>(error);
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(SlowMathematics::made, 1);
    EXPECT_EQ(found[0], found[1]);
}

TEST(SharedLibrary, ThatIsNotThereIsNamed) {
    std::string error;
    EXPECT_EQ(platform::loadedFunctions<NoLibrary>(error), nullptr);
    EXPECT_NE(error.find("libnobody-has-this.so.9"), std::string::npos) << error;
    EXPECT_NE(error.find("cannot open shared object file"), std::string::npos)
        << "the system's words, not " << error;
}

TEST(SharedLibrary, AFunctionThatIsNotThereIsNamed) {
    std::string error;
    EXPECT_EQ(platform::loadedFunctions<MathematicsWithAGap>(error), nullptr);
    EXPECT_NE(error.find("unheard_of"), std::string::npos) << error;
}

TEST(SharedLibrary, OfTwoFunctionsThatAreNotThereTheFirstIsNamed) {
    SharedLibrary library("libm.so.6");
    const LibraryFunction<Root> first(library, "unheard_of"), second(library, "unknown_too");
    EXPECT_NE(library.error().find("unheard_of"), std::string::npos) << library.error();
    EXPECT_EQ(library.error().find("unknown_too"), std::string::npos) << library.error();
}
