#include "platform/linux/privacy_window_mark.h"

#include <gtest/gtest.h>

#include <array>
#include <functional>
#include <latch>
#include <thread>

#include "support/temporary_directory.h"

namespace vesko {
namespace {

// Of many questions by two threads at once, how many found a window.
int timesShown(const PrivacyWindowMark& mark, int questions) {
  std::array<int, 2> shown{};
  std::latch both(2);
  const auto askOften = [&](int& count) {
    both.arrive_and_wait();
    for (int i = 0; i < questions; ++i) count += mark.shown() ? 1 : 0;
  };
  std::thread other(askOften, std::ref(shown[1]));
  askOften(shown[0]);
  other.join();
  return shown[0] + shown[1];
}

TEST(PrivacyWindowMark, isSeenByAllAsLongAsAnyWindowShowsIt) {
  constexpr int questions = 20000;
  const support::TemporaryDirectory directory;
  const PrivacyWindowMark mark(directory / "consents.plist");
  EXPECT_FALSE(mark.shown()) << "before there was any";
  {
    auto first = mark.show();
    auto second = mark.show();
    ASSERT_TRUE(first && second);
    first->reset();
    EXPECT_EQ(timesShown(mark, questions), 2 * questions);
  }
  EXPECT_EQ(timesShown(mark, questions), 0) << "those who ask see each other";
  EXPECT_FALSE(PrivacyWindowMark(directory / "gone/consents.plist").show());
}

}  // namespace
}  // namespace vesko
