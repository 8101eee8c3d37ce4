#include "ky/kyRandomUtils.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>

#include <sys/random.h>

namespace ky {
namespace {

// kept: every run draws the same values, since seeds count up from 0, and a further thread that
// draws seeds the one generator of the process anew.
int DefaultRand(unsigned char* buffer, int length)
{
    static std::atomic<std::uint32_t> sNextSeed{0};
    static thread_local bool tIsSeeded = false;
    if (!tIsSeeded) {
        std::srand(sNextSeed.fetch_add(1, std::memory_order_relaxed));
        tIsSeeded = true;
    }
    for (int i = 0; i < length; ++i) {
        // NOLINTNEXTLINE(cert-msc30-c,cert-msc50-cpp,concurrency-mt-unsafe): locked by glibc
        buffer[i] = static_cast<unsigned char>(std::rand() & 0xFF);
    }
    return 1;
}

}  // namespace

// Static constructors of other modules may draw values, so no constructor runs here.
constinit std::atomic<kyRandomUtils::RandGenerator> kyRandomUtils::sRandGenerator{DefaultRand};

kyRandomUtils::RandGenerator kyRandomUtils::SetRandGenerator(RandGenerator generator)
{
    return sRandGenerator.exchange(generator ? generator : DefaultRand, std::memory_order_relaxed);
}

int kyRandomUtils::Rand(char* buffer, unsigned long length)
{
    const RandGenerator generator = sRandGenerator.load(std::memory_order_relaxed);
    auto* next = reinterpret_cast<unsigned char*>(buffer);
    int result = 0;
    do {
        const auto piece = static_cast<int>(std::min<unsigned long>(length, INT_MAX));
        result = generator(next, piece);
        next += piece;
        length -= static_cast<unsigned long>(piece);
    } while (result != 0 && length > 0);
    return result;
}

std::string kyRandomUtils::CreateRandHexString(unsigned long byteCount)
{
    static constexpr char sDigits[] = "0123456789abcdef";
    // kept: a request for nothing draws one byte.
    std::string bytes(std::max(byteCount, 1UL), '\0');
    Rand(bytes.data(), bytes.size());
    std::string text;
    text.reserve(2 * bytes.size());
    for (const char byte : bytes) {
        const auto value = static_cast<unsigned char>(byte);
        text += sDigits[value >> 4];
        text += sDigits[value & 0xF];
    }
    return text;
}

int kyRandomUtils::SystemRand(unsigned char* buffer, int length)
{
    if (length < 0)
        return 0;
    auto missing = static_cast<std::size_t>(length);
    while (missing > 0) {
        // Gives less than asked when a signal comes in or, on many kernels, above 32 MiB.
        const ssize_t got = ::getrandom(buffer, missing, 0);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            return 0;
        buffer += got;
        missing -= static_cast<std::size_t>(got);
    }
    return 1;
}

}  // namespace ky
