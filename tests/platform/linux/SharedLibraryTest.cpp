#include "platform/linux/SharedLibrary.h"

#include <gtest/gtest.h>

#include <string>

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

TEST(SharedLibrary, ThatIsNotThereIsNamed) {
    std::string error;
    EXPECT_EQ(platform::loadedFunctions<NoLibrary>(error), nullptr);
    EXPECT_NE(error.find("libnobody-has-this.so.9"), std::string::npos) << error;
}

TEST(SharedLibrary, AFunctionThatIsNotThereIsNamed) {
    std::string error;
    EXPECT_EQ(platform::loadedFunctions<MathematicsWithAGap>(error), nullptr);
    EXPECT_NE(error.find("unheard_of"), std::string::npos) << error;
}
