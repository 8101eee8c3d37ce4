#pragma once

#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <fcntl.h>
#include <unistd.h>
#include <cstdlib>
#include <cstring>

inline std::string FilePath()
{
    static const char* const folder = std::getenv("TMPDIR");
    return std::string(folder != nullptr ? folder : "/tmp") + "/ky-bench-stream-" +
           std::to_string(::getpid());
}

inline void Check(bool isRight)
{
    if (!isRight)
        throw std::runtime_error("a value was lost");
}

/// The limit: nothing is called but write(2) and read(2).
class InlineFile {
public:
    explicit InlineFile(int flags)
        : mFd(::open((FilePath() + "-inline").c_str(), flags | O_CLOEXEC, 0600))
    {}
    ~InlineFile()
    {
        if (mIsWriting)
            Check(::write(mFd, mBytes.get(), mSize) == static_cast<ssize_t>(mSize));
        ::close(mFd);
    }
    InlineFile(const InlineFile&) = delete;
    InlineFile& operator=(const InlineFile&) = delete;

    template <typename Value>
    InlineFile& operator<<(Value value)
    {
        mIsWriting = true;
        if (sBytes - mSize < sizeof value)
            writeOut();
        std::memcpy(mBytes.get() + mSize, &value, sizeof value);
        mSize += sizeof value;
        return *this;
    }
    InlineFile& operator<<(const std::string& text)
    {
        *this << static_cast<unsigned>(text.size());
        if (sBytes - mSize < text.size())
            writeOut();
        std::memcpy(mBytes.get() + mSize, text.data(), text.size());
        mSize += text.size();
        return *this;
    }
    template <typename Value>
    InlineFile& operator>>(Value& value)
    {
        fill(sizeof value);
        std::memcpy(&value, mBytes.get() + mStart, sizeof value);
        mStart += sizeof value;
        return *this;
    }
    InlineFile& operator>>(std::string& text)
    {
        unsigned size = 0;
        *this >> size;
        fill(size);
        text.assign(mBytes.get() + mStart, size);
        mStart += size;
        return *this;
    }

private:
    static constexpr std::size_t sBytes = 1 << 20;

    void writeOut()
    {
        Check(::write(mFd, mBytes.get(), mSize) == static_cast<ssize_t>(mSize));
        mSize = 0;
    }
    void fill(std::size_t size)
    {
        if (mSize - mStart >= size)
            return;
        std::memmove(mBytes.get(), mBytes.get() + mStart, mSize - mStart);
        mSize -= mStart;
        mStart = 0;
        const ssize_t got = ::read(mFd, mBytes.get() + mSize, sBytes - mSize);
        Check(got > 0);
        mSize += static_cast<std::size_t>(got);
    }

    const int mFd;
    const std::unique_ptr<char[]> mBytes{new char[sBytes]};
    std::size_t mStart = 0;
    std::size_t mSize = 0;
    bool mIsWriting = false;
};

/// The same in memory that is large enough.
class InlineMemory {
public:
    explicit InlineMemory(std::vector<char>& bytes) : mAt(bytes.data()) {}

    template <typename Value>
    InlineMemory& operator<<(Value value)
    {
        std::memcpy(mAt, &value, sizeof value);
        mAt += sizeof value;
        return *this;
    }
    InlineMemory& operator<<(const std::string& text)
    {
        *this << static_cast<unsigned>(text.size());
        std::memcpy(mAt, text.data(), text.size());
        mAt += text.size();
        return *this;
    }
    template <typename Value>
    InlineMemory& operator>>(Value& value)
    {
        std::memcpy(&value, mAt, sizeof value);
        mAt += sizeof value;
        return *this;
    }
    InlineMemory& operator>>(std::string& text)
    {
        unsigned size = 0;
        *this >> size;
        text.assign(mAt, size);
        mAt += size;
        return *this;
    }

private:
    char* mAt;
};

/// A bare call of std::fstream per value.
class BareFstream {
public:
    explicit BareFstream(std::ios_base::openmode mode)
        : mFile(FilePath(), mode | std::ios_base::binary)
    {}
    template <typename Value>
    BareFstream& operator<<(Value value)
    {
        mFile.write(reinterpret_cast<const char*>(&value), sizeof value);
        return *this;
    }
    BareFstream& operator<<(const std::string& text)
    {
        *this << static_cast<unsigned>(text.size());
        mFile.write(text.data(), static_cast<std::streamsize>(text.size()));
        return *this;
    }
    template <typename Value>
    BareFstream& operator>>(Value& value)
    {
        mFile.read(reinterpret_cast<char*>(&value), sizeof value);
        return *this;
    }
    BareFstream& operator>>(std::string& text)
    {
        unsigned size = 0;
        *this >> size;
        text.resize(size);
        mFile.read(text.data(), static_cast<std::streamsize>(size));
        return *this;
    }

private:
    std::fstream mFile;
};
