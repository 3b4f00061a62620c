#include "token/process_iv.h"

#include <mutex>

namespace veltra {

namespace {

struct ProcessIv {
    std::mutex mutex;
    std::vector<unsigned char> bytes;
};

// Created on first use and never destroyed: a thread that still decrypts while the process ends must find it,
// and one that the system has killed may have left its lock taken.
ProcessIv& instance() {
    static auto* const iv = new ProcessIv;
    return *iv;
}

} // namespace

void setProcessIv(std::span<const unsigned char> iv) {
    std::vector<unsigned char> bytes(iv.begin(), iv.end());
    const std::lock_guard lock(instance().mutex);
    instance().bytes.swap(bytes);
}

std::vector<unsigned char> processIv() {
    const std::lock_guard lock(instance().mutex);
    return instance().bytes;
}

} // namespace veltra
