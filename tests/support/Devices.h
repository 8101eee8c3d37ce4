#pragma once

#include "ky/kyIoDevice.h"

#include <algorithm>
#include <climits>
#include <string>
#include <utility>
#include <vector>

namespace ky::test {

/// The next `n` bytes of a device, or as many as it gives.
inline std::string Read(kyIoDevice& device, unsigned long n)
{
    std::string text(n, '?');
    text.resize(device.readBytes(text.data(), n));
    return text;
}

/// A device of a user: reads from and appends to `content`, notes the size of every call, and moves
/// one byte too few from call number `failsAt` on (counted from 0).
class NotingDevice : public kyIoDevice {
public:
    explicit NotingDevice(std::string bytes = {}, std::size_t firstFailure = INT_MAX)
        : kyIoDevice(DataWayReadWrite), content(std::move(bytes)), failsAt(firstFailure)
    {}

    unsigned long readBytes(char* dst, unsigned long n) override
    {
        const unsigned long size = std::min(noteCall(n), content.size() - position);
        content.copy(dst, size, position);
        position += size;
        return size;
    }
    unsigned long writeBytes(char const* src, unsigned long n) override
    {
        const unsigned long size = noteCall(n);
        content.append(src, size);
        return size;
    }
    bool atEnd() const override { return position == content.size(); }

    std::string content;
    std::size_t failsAt;
    std::vector<unsigned long> calls;
    std::size_t position = 0;

private:
    unsigned long noteCall(unsigned long n)
    {
        calls.push_back(n);
        return calls.size() > failsAt && n > 0 ? n - 1 : n;
    }
};

}  // namespace ky::test
