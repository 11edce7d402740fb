#include "harness/lines.h"

#include <algorithm>
#include <cstdlib>
#include <stdexcept>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace kt {

void LineLog::append(line_t line) {
    const std::lock_guard<std::mutex> lock(mutex);
    all.push_back(std::move(line));
    changed.notify_all();
}

void LineLog::finish() {
    const std::lock_guard<std::mutex> lock(mutex);
    finished = true;
    changed.notify_all();
}

std::size_t LineLog::size() const {
    const std::lock_guard<std::mutex> lock(mutex);
    return all.size();
}

std::vector<line_t> LineLog::lines(std::size_t from) const {
    const std::lock_guard<std::mutex> lock(mutex);
    if (from >= all.size()) {
        return {};
    }
    return {all.begin() + static_cast<std::ptrdiff_t>(from), all.end()};
}

std::size_t LineLog::count(const std::string &whole_line, std::size_t from) const {
    std::size_t found = 0;
    for (const auto &line : lines(from)) {
        found += line.text == whole_line ? 1U : 0U;
    }
    return found;
}

std::size_t LineLog::count_containing(const std::string &part, std::size_t from) const {
    std::size_t found = 0;
    for (const auto &line : lines(from)) {
        found += line.text.find(part) != std::string::npos ? 1U : 0U;
    }
    return found;
}

// Called with the mutex held.
long LineLog::find_if(const test_t &test, std::size_t from) const {
    for (std::size_t i = from; i < all.size(); ++i) {
        if (test(all[i])) {
            return static_cast<long>(i);
        }
    }
    return -1;
}

long LineLog::find(const std::string &whole_line, std::size_t from) const {
    const std::lock_guard<std::mutex> lock(mutex);
    return find_if([&](const line_t &line) { return line.text == whole_line; }, from);
}

long LineLog::find_containing(const std::string &part, std::size_t from) const {
    const std::lock_guard<std::mutex> lock(mutex);
    return find_if([&](const line_t &line) { return line.text.find(part) != std::string::npos; },
                   from);
}

std::size_t LineLog::wait_if(const test_t &test, std::size_t from,
                             std::chrono::milliseconds limit) {
    std::unique_lock<std::mutex> lock(mutex);
    const auto deadline = clock_type::now() + limit;
    for (;;) {
        const long found = find_if(test, from);
        if (found >= 0) {
            return static_cast<std::size_t>(found) + 1;
        }
        from = std::max(from, all.size());
        if (finished || changed.wait_until(lock, deadline) == std::cv_status::timeout) {
            const long last = find_if(test, from);
            return last >= 0 ? static_cast<std::size_t>(last) + 1 : 0;
        }
    }
}

std::size_t LineLog::wait_for(const std::string &whole_line, std::size_t from,
                              std::chrono::milliseconds limit) {
    return wait_if([&](const line_t &line) { return line.text == whole_line; }, from, limit);
}

std::size_t LineLog::wait_for_containing(const std::string &part, std::size_t from,
                                         std::chrono::milliseconds limit) {
    return wait_if([&](const line_t &line) { return line.text.find(part) != std::string::npos; },
                   from, limit);
}

std::size_t LineLog::wait_for_either(const std::string &one, const std::string &other,
                                     std::size_t from, std::chrono::milliseconds limit) {
    return wait_if([&](const line_t &line) { return line.text == one || line.text == other; }, from,
                   limit);
}

bool LineLog::wait_finished(std::chrono::milliseconds limit) {
    std::unique_lock<std::mutex> lock(mutex);
    return changed.wait_for(lock, limit, [&] { return finished; });
}

std::string LineLog::tail(std::size_t count) const {
    const auto everything = lines();
    std::string text;
    for (std::size_t i = everything.size() > count ? everything.size() - count : 0;
         i < everything.size(); ++i) {
        text += "    " + everything[i].text + "\n";
    }
    return text;
}

line_t parse_log_message(const std::string &datagram) {
    line_t line;
    line.at = clock_type::now();
    line.text = datagram;
    const auto close = datagram.find('>');
    // "<30>" and the date, which is always "Mmm dd hh:mm:ss ".
    constexpr std::size_t date_length = 16;
    if (datagram.empty() || datagram[0] != '<' || close == std::string::npos ||
        datagram.size() < close + 1 + date_length) {
        return line;
    }
    const std::string rest = datagram.substr(close + 1 + date_length);
    const auto colon = rest.find(": ");
    if (colon == std::string::npos) {
        return line;
    }
    line.priority = static_cast<int>(std::strtol(datagram.c_str() + 1, nullptr, 10));
    line.sender = rest.substr(0, colon);
    line.text = rest.substr(colon + 2);
    while (!line.text.empty() && (line.text.back() == '\0' || line.text.back() == '\n')) {
        line.text.pop_back();
    }
    return line;
}

Collector::Collector() {
    if (pipe2(wake_pipe, O_CLOEXEC) != 0) {
        throw std::runtime_error("pipe2");
    }
    thread = std::thread([this] { work(); });
}

Collector::~Collector() {
    close(wake_pipe[1]);
    thread.join();
    close(wake_pipe[0]);
}

void Collector::watch_stream(int fd, std::shared_ptr<LineLog> log) {
    add(fd, false, std::move(log));
}

void Collector::watch_log_socket(int fd, std::shared_ptr<LineLog> log) {
    add(fd, true, std::move(log));
}

void Collector::add(int fd, bool datagrams, std::shared_ptr<LineLog> log) {
    {
        const std::lock_guard<std::mutex> lock(mutex);
        arriving.push_back({fd, datagrams, std::move(log), {}});
    }
    const char byte = 0;
    if (write(wake_pipe[1], &byte, 1) != 1) {
        throw std::runtime_error("write to the collector's pipe");
    }
}

// Returns false at the end of the source.
bool Collector::read_source(source_t &source) {
    char buffer[16384];
    if (source.datagrams) {
        const ssize_t length = recv(source.fd, buffer, sizeof buffer, 0);
        if (length > 0) {
            source.log->append(
                parse_log_message(std::string(buffer, static_cast<std::size_t>(length))));
        }
        return true;
    }
    const ssize_t length = read(source.fd, buffer, sizeof buffer);
    if (length <= 0) {
        if (!source.pending.empty()) {
            source.log->append({clock_type::now(), source.pending, -1, {}});
        }
        source.log->finish();
        return false;
    }
    source.pending.append(buffer, static_cast<std::size_t>(length));
    std::size_t start = 0;
    for (auto end = source.pending.find('\n'); end != std::string::npos;
         end = source.pending.find('\n', start)) {
        source.log->append({clock_type::now(), source.pending.substr(start, end - start), -1, {}});
        start = end + 1;
    }
    source.pending.erase(0, start);
    return true;
}

void Collector::work() {
    std::vector<source_t> sources;
    for (;;) {
        std::vector<pollfd> polled{{wake_pipe[0], POLLIN, 0}};
        for (const auto &source : sources) {
            polled.push_back({source.fd, POLLIN, 0});
        }
        if (poll(polled.data(), polled.size(), -1) < 0) {
            continue;
        }
        for (std::size_t i = sources.size(); i > 0; --i) {
            if (polled[i].revents != 0 && !read_source(sources[i - 1])) {
                close(sources[i - 1].fd);
                sources.erase(sources.begin() + static_cast<std::ptrdiff_t>(i - 1));
            }
        }
        if (polled[0].revents == 0) {
            continue;
        }
        char byte = 0;
        if (read(wake_pipe[0], &byte, 1) != 1) {
            break; // the collector is being destroyed
        }
        const std::lock_guard<std::mutex> lock(mutex);
        for (auto &source : arriving) {
            sources.push_back(std::move(source));
        }
        arriving.clear();
    }
    for (const auto &source : sources) {
        close(source.fd);
    }
}

} // namespace kt
