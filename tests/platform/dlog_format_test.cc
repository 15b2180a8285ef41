// Log messages say exactly what printf would say for the same format and arguments,
// whichever way the logging service formats them.
#include <dlog.h>
#include <glib.h>
#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <string>

#include <unistd.h>

#include "LogCapture.h"

namespace {

// Logs fmt with the arguments at debug (captured, not printed) and returns the message
// beside printf's text of the same.
#define EXPECT_AS_PRINTF(fmt, ...)                                              \
  do {                                                                          \
    testsupport::LogCapture capture;                                            \
    int n = dlog_print(DLOG_DEBUG, "T", fmt, ##__VA_ARGS__);                    \
    char *want = g_strdup_printf(fmt, ##__VA_ARGS__);                           \
    ASSERT_EQ(1u, capture.lines().size());                                      \
    EXPECT_EQ(std::string(want), capture.lines()[0].message) << (fmt);          \
    EXPECT_EQ(static_cast<int>(strlen(want)), n) << (fmt);                      \
    g_free(want);                                                               \
  } while (0)

}  // namespace

TEST(DlogFormat, EveryConversionAndLengthGivesPrintfsText) {
  EXPECT_AS_PRINTF("plain text, 100%% sure");
  const char *volatile none = nullptr;  // a null the compiler cannot see
  EXPECT_AS_PRINTF("%s|%s|%c|%s", "a", none, 'z', "");
  EXPECT_AS_PRINTF("%d %d %d %i", 0, -1, INT_MIN, INT_MAX);
  EXPECT_AS_PRINTF("%u %u", 0u, UINT_MAX);
  EXPECT_AS_PRINTF("%ld %lu %lld %llu", LONG_MIN, ULONG_MAX, LLONG_MIN, ULLONG_MAX);
  EXPECT_AS_PRINTF("%zu %zd %zd", SIZE_MAX, static_cast<ssize_t>(-5), SSIZE_MAX);
  // Widths, precision, flags and other conversions.
  EXPECT_AS_PRINTF("[%5d|%-3s|%.2s|%x|%p|%05.1f|%hd]", 42, "ab", "xyz", 255u,
                   static_cast<void *>(nullptr), 2.5, static_cast<short>(-3));
}

TEST(DlogFormat, MessagesAroundTheStackBufferAreWhole) {
  // A line is put together in 1 KiB on the stack when it fits: messages of about that
  // size, behind the prefix "D/T(<pid>): ", and one far beyond it.
  const size_t edge = 1024 - (7 + std::to_string(getpid()).size());
  for (size_t len : {edge - 30, edge - 3, edge - 2, edge - 1, edge, edge + 1, size_t(5000)}) {
    const std::string text(len, 'q');
    EXPECT_AS_PRINTF("%s", text.c_str());
    EXPECT_AS_PRINTF("%d:%s:%d", -123456, text.c_str(), 7);
  }
}
