#include "service/known_file.h"

#include <sys/stat.h>

#include <utility>

namespace tav {

KnownFile::KnownFile(std::string name) : file_name(std::move(name)) {
    struct stat info {};
    if (::stat(file_name.c_str(), &info) == 0) {
        device = info.st_dev;
        inode = info.st_ino;
        size = info.st_size;
    }
}

const char *KnownFile::loss() {
    struct stat info {};
    if (::stat(file_name.c_str(), &info) != 0) {
        return "cannot be found any more";
    }
    if (info.st_dev != device || info.st_ino != inode) {
        return "was replaced by another file";
    }
    if (info.st_size < size) {
        return "was cut short";
    }
    size = info.st_size;
    return nullptr;
}

void KnownFile::accept_size() {
    struct stat info {};
    if (::stat(file_name.c_str(), &info) == 0) {
        size = info.st_size;
    }
}

} // namespace tav
