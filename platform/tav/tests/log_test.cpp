// The service's log.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <unistd.h>

#include "service/log.h"
#include "support/hostile_text.h"

using tav::log_line;

namespace {

// Standard error is a pipe for as long as the object lives.
class ErrorPipe {
public:
    ErrorPipe() : before(::dup(STDERR_FILENO)) {
        EXPECT_EQ(::pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
        ::dup2(ends[1], STDERR_FILENO);
    }
    ~ErrorPipe() {
        ::dup2(before, STDERR_FILENO);
        ::close(before);
        ::close(ends[0]);
        ::close(ends[1]);
    }
    ErrorPipe(const ErrorPipe &) = delete;
    ErrorPipe &operator=(const ErrorPipe &) = delete;

    // Leaves room for less than one line. Writing blocks from now on.
    void fill() {
        while (::write(ends[1], "x", 1) == 1) {
        }
        ::fcntl(ends[1], F_SETFL, 0);
    }
    std::string take() {
        std::string all(std::size_t{1} << 20, '\0');
        all.resize(static_cast<std::size_t>(
            std::max<ssize_t>(::read(ends[0], all.data(), all.size()), 0)));
        return all;
    }

private:
    int before;
    int ends[2] = {-1, -1};
};

} // namespace

static_assert(noexcept(log_line(" ")), "it is called where memory has ended");

TEST(Log, AFullPipeIsNotWaitedForAndTheLostLinesAreCounted) {
    ErrorPipe pipe;
    pipe.fill();
    ::alarm(60); // a log that waits would hang
    log_line("lost %d", 1);
    log_line("lost %d", 2);
    ::alarm(0);
    EXPECT_EQ(pipe.take().find("lost"), std::string::npos);
    log_line("written");
    log_line("written");
    EXPECT_EQ(pipe.take(), "tavd: 2 lines could not be written\ntavd: written\ntavd: written\n");
}

TEST(Log, LinesOfOneFormatAreLimited) {
    ErrorPipe pipe;
    std::string expected;
    for (int i = 0; i < 30; ++i) {
        log_line("again %d", i);
        expected += i < 20 ? "tavd: again " + std::to_string(i) + "\n" : "";
    }
    EXPECT_EQ(pipe.take(), expected);
}

TEST(Log, ALineIsOneLineWhateverItHolds) {
    ErrorPipe pipe;
    log_line("name '%s'", "a\nb\x1b[2J\xc2\x9b\\");
    EXPECT_EQ(pipe.take(), "tavd: name 'a\\nb\\x1b[2J\\xc2\\x9b\\\\'\n");
    log_line("text %s", std::string(2000, '\x1b').c_str());
    const std::string longest = pipe.take();
    EXPECT_LE(longest.size(), 4096U) << "more is not written whole into a pipe";
    EXPECT_EQ(longest.back(), '\n');
    EXPECT_EQ(tavtest::unescaped_part(longest.substr(0, longest.size() - 1)), "");
}

TEST(Log, ItAllocatesNoMemory) {
    const ErrorPipe pipe;
    const std::size_t before = ::mallinfo2().uordblks;
    log_line("a line that was not logged before, %s", "with a text");
    EXPECT_EQ(::mallinfo2().uordblks, before);
}
