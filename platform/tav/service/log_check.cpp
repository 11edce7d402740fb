#include "service/log_check.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <map>
#include <stdexcept>
#include <vector>

#include "client/unique_fd.h"

namespace tav {

namespace {

// From "Database File Format" of SQLite's documentation, section 4.1, "WAL File Format": the header
// of the log, and that of each frame, all numbers with the highest byte first.
constexpr std::size_t header_bytes = 32;
constexpr std::size_t frame_header_bytes = 24;
constexpr std::uint32_t magic =
    0x377f0682; // plus 1: checksums of words with the highest byte first
constexpr std::size_t header_page_size = 8; // offsets in the header of the log
constexpr std::size_t header_sequence = 12;
constexpr std::size_t header_salts = 16;
constexpr std::size_t header_checksum = 24;
constexpr std::size_t frame_commit = 4; // offsets in the header of a frame
constexpr std::size_t frame_salts = 8;
constexpr std::size_t frame_checksum = 16;
constexpr std::uint32_t least_page = 512;
constexpr std::uint32_t largest_page = 65536;
// Section 1.3, "The Database Header": the page size, of which 1 means the largest.
constexpr off_t database_page_size = 16;
// The least that a disk writes as a whole.
constexpr std::uint64_t sector = 512;

using Pair = std::array<std::uint32_t, 2>; // a checksum, or salts

std::uint32_t number_at(const unsigned char *bytes) {
    return static_cast<std::uint32_t>(bytes[0]) << 24 | static_cast<std::uint32_t>(bytes[1]) << 16 |
           static_cast<std::uint32_t>(bytes[2]) << 8 | bytes[3];
}

Pair pair_at(const unsigned char *bytes) {
    return {number_at(bytes), number_at(bytes + 4)};
}

// Section 4.2, "Checksum Algorithm". `size` is a multiple of 8.
Pair add_checksum(Pair sum, bool highest_first, const unsigned char *bytes, std::size_t size) {
    const auto word = [&](std::size_t at) {
        const std::uint32_t number = number_at(bytes + at);
        return highest_first ? number : __builtin_bswap32(number);
    };
    for (std::size_t at = 0; at < size; at += 8) {
        sum[0] += word(at) + sum[1];
        sum[1] += word(at + 4) + sum[0];
    }
    return sum;
}

// False if the file ends before.
bool read_at(int fd, off_t offset, unsigned char *to, std::size_t size) {
    while (size > 0) {
        const ssize_t got = ::pread(fd, to, size, offset);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            throw std::runtime_error(std::string("cannot be read: ") + std::strerror(errno));
        }
        if (got == 0) {
            return false;
        }
        to += got;
        offset += got;
        size -= static_cast<std::size_t>(got);
    }
    return true;
}

bool is_page_size(std::uint32_t size) {
    return size >= least_page && size <= largest_page && (size & (size - 1)) == 0;
}

class Log {
public:
    Log(int log, std::uint64_t length) : fd(log), bytes(length) {}

    LogCheck check(int database);

private:
    bool read_header();
    bool take_page_size(int database);
    bool next_frame();
    void walk();
    void count_dropped(std::uint64_t kept_end, std::uint64_t last_end);
    bool is_in_database(int database);

    std::size_t frame_bytes() const { return frame_header_bytes + page_size; }
    off_t offset_of(std::uint64_t number) const {
        return static_cast<off_t>(header_bytes + number * frame_bytes());
    }
    std::uint32_t page() const { return number_at(current.data()); }
    std::uint32_t commit() const { return number_at(&current[frame_commit]); }
    bool has_salts() const { return pair_at(&current[frame_salts]) == salts; }
    bool is_older() const;
    bool commit_is_certain() const;

    int fd;
    std::uint64_t bytes;
    std::uint32_t page_size = 0;
    bool highest_first = false;
    std::uint32_t sequence = 0; // how often the file was used again from its start
    Pair salts{};
    Pair checksum{};                    // of all before the current frame, as that says itself
    std::uint64_t next = 0;             // the number of the frame after the current one
    std::vector<unsigned char> current; // the current frame: header and page
    bool follows = false;               // its checksum is the one that follows from `checksum`
    bool older = false;                 // so is the frame before the current one
    LogCheck result;
};

bool Log::read_header() {
    std::array<unsigned char, header_bytes> header{};
    read_at(fd, 0, header.data(), header.size());
    highest_first = number_at(header.data()) == magic + 1;
    page_size = number_at(&header[header_page_size]);
    sequence = number_at(&header[header_sequence]);
    salts = pair_at(&header[header_salts]);
    checksum = add_checksum({}, highest_first, header.data(), header_checksum);
    return (highest_first || number_at(header.data()) == magic) && is_page_size(page_size) &&
           checksum == pair_at(&header[header_checksum]);
}

// False at the end of the file. A frame contains the checksum of everything up to its own end, so
// the one after a damaged frame can be checked, too.
bool Log::next_frame() {
    if (next > 0) {
        checksum = pair_at(&current[frame_checksum]);
    }
    current.resize(frame_bytes());
    if (!read_at(fd, offset_of(next), current.data(), current.size())) {
        return false;
    }
    ++next;
    Pair sum = add_checksum(checksum, highest_first, current.data(), frame_salts);
    sum = add_checksum(sum, highest_first, &current[frame_header_bytes], page_size);
    follows = sum == pair_at(&current[frame_checksum]);
    return true;
}

// Whether the frame remains from an earlier use of the file: the first salt increases by one each
// time. All its frames are in the database. A frame that follows one of this use has damaged salts.
bool Log::is_older() const {
    const std::uint32_t uses_ago = salts[0] - number_at(&current[frame_salts]);
    return (!follows || older) && uses_ago >= 1 && uses_ago <= sequence;
}

// A power cut can mix two writes, but not within a sector: with the salts of this use, the commit
// field is of this use, too.
bool Log::commit_is_certain() const {
    const auto offset = static_cast<std::uint64_t>(offset_of(next - 1));
    return follows || (has_salts() &&
                       (offset + frame_commit) / sector == (offset + frame_checksum - 1) / sector);
}

void Log::walk() {
    bool intact = true;
    bool commit_seen = false; // from the first damaged frame on
    std::uint64_t kept_end = 0;
    std::uint64_t last_end = 0;
    while (next_frame()) {
        const bool valid = follows && has_salts() && page() != 0;
        if (intact && valid && commit() != 0) {
            ++result.commits;
            kept_end = next;
        } else if (intact && !valid) {
            intact = false;
            commit_seen = commit() != 0 && commit_is_certain();
        } else if (!intact && valid) {
            result.damaged_before_a_commit = result.damaged_before_a_commit || commit_seen;
            commit_seen = commit_seen || commit() != 0;
        }
        older = is_older();
        if (!older) {
            last_end = next;
        }
    }
    count_dropped(kept_end, last_end);
}

void Log::count_dropped(std::uint64_t kept_end, std::uint64_t last_end) {
    const std::uint64_t partial = (bytes - header_bytes) % frame_bytes();
    if (last_end > kept_end) {
        result.dropped_frames = last_end - kept_end;
        result.dropped_bytes = result.dropped_frames * frame_bytes();
    }
    if (partial > 0 && (last_end == next || kept_end == next)) {
        follows = false;
        current.assign(frame_header_bytes, 0);
        if (!read_at(fd, offset_of(next), current.data(), frame_checksum) || !is_older()) {
            result.dropped_bytes += partial;
        }
    }
}

bool Log::take_page_size(int database) {
    std::array<unsigned char, 2> size{};
    if (!read_at(database, database_page_size, size.data(), size.size())) {
        return false;
    }
    page_size = static_cast<std::uint32_t>(size[0]) << 8 | size[1];
    page_size = page_size == 1 ? largest_page : page_size;
    return is_page_size(page_size);
}

// Without its header nothing shows that the log belongs to the database, and the first frame cannot
// be checked. The header is written when the content of the log is in the database already, so the
// log is only needed if some of its pages are not.
bool Log::is_in_database(int database) {
    if (!take_page_size(database)) {
        return false;
    }
    highest_first = __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__;
    std::map<std::uint32_t, std::uint64_t> unfinished; // the last frame of each page
    std::map<std::uint32_t, std::uint64_t> last;
    while (next_frame()) {
        if (next == 1) {
            salts = pair_at(&current[frame_salts]);
        } else if (!follows || !has_salts()) {
            break;
        }
        unfinished[page()] = next - 1;
        if (commit() != 0) {
            for (const auto &[number, frame] : unfinished) {
                last[number] = frame;
            }
            unfinished.clear();
        }
    }
    std::vector<unsigned char> stored(page_size);
    current.resize(frame_bytes());
    for (const auto &[number, frame] : last) {
        const off_t place = static_cast<off_t>(number - 1) * page_size;
        if (!read_at(fd, offset_of(frame), current.data(), current.size()) ||
            !read_at(database, place, stored.data(), stored.size()) ||
            std::memcmp(&current[frame_header_bytes], stored.data(), stored.size()) != 0) {
            return false;
        }
    }
    return true;
}

LogCheck Log::check(int database) {
    if (bytes <= header_bytes) {
        return result;
    }
    if (read_header()) {
        walk();
    } else {
        result.header_damaged = !is_in_database(database);
    }
    return result;
}

} // namespace

LogCheck check_log(const std::string &log, int database) {
    const UniqueFd fd(::open(log.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd.valid() && errno == ENOENT) {
        return {};
    }
    struct stat info {};
    if (!fd.valid() || ::fstat(fd.get(), &info) != 0) {
        throw std::runtime_error(std::string("cannot be read: ") + std::strerror(errno));
    }
    return Log(fd.get(), static_cast<std::uint64_t>(info.st_size)).check(database);
}

} // namespace tav
