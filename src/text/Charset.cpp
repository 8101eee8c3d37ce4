#include "text/Charset.h"

#include "text/Ascii.h"

#include <utf8.h>

#include <algorithm>
#include <array>
#include <iterator>
#include <memory>
#include <new>
#include <numeric>
#include <string_view>

#include <langinfo.h>
#include <csignal>

namespace ky {

locale_t* kyStringUtils::msCLocale = nullptr;
std::locale* kyStringUtils::msCplusLocale = nullptr;
pthread_key_t* kyStringUtils::msThreadContent = nullptr;

namespace {

constexpr std::size_t sCharSetCount = 3;
constexpr std::size_t sScratchKeptBytes = std::size_t{1} << 20;
// The longest transliteration of one character has eight: U+2057 towards EUC-JP.
constexpr std::size_t sBytesPerCharacter = 8;

pthread_mutex_t sCodesetMutex = PTHREAD_MUTEX_INITIALIZER;
// Under the mutex; made once and never freed, so that a thread can still open converters while
// static destructors run.
std::string* sCodeset = nullptr;

/// A signal handler that logs may interrupt its own thread here. It must not wait for the mutex
/// that this thread holds, nor use converters that this thread is using: its conversions fail.
class BusyMark {
public:
    explicit BusyMark(volatile std::sig_atomic_t& isBusy) : mIsBusy(isBusy) { mIsBusy = 1; }
    ~BusyMark() { mIsBusy = 0; }
    BusyMark(const BusyMark&) = delete;
    BusyMark& operator=(const BusyMark&) = delete;

private:
    volatile std::sig_atomic_t& mIsBusy;
};

// Set while the thread holds the mutex. A conversion has a mark of its own, in the context: it is
// at hand there, and this one costs a call.
constinit thread_local volatile std::sig_atomic_t tIsLocking = 0;

class CodesetLock {
public:
    CodesetLock() { ::pthread_mutex_lock(&sCodesetMutex); }
    ~CodesetLock() { ::pthread_mutex_unlock(&sCodesetMutex); }
    CodesetLock(const CodesetLock&) = delete;
    CodesetLock& operator=(const CodesetLock&) = delete;

private:
    const BusyMark mBusy{tIsLocking};
};

/// iconv_open(3) and newlocale(3) take locks of the C library that fork(2) does not take along. A
/// child forked while another thread holds one would hang at its first conversion, so a fork waits
/// until no thread opens or closes converters. At load time, because handlers registered later
/// take their locks before this one, and a thread may convert while it holds those locks.
__attribute__((constructor)) void KeepForkOutOfContextCreation()
{
    ::pthread_atfork([] { ::pthread_mutex_lock(&sCodesetMutex); },
                     [] { ::pthread_mutex_unlock(&sCodesetMutex); },
                     [] { ::pthread_mutex_unlock(&sCodesetMutex); });
}

/// Tells what setlocale(LC_ALL, "") would put in force, without the moment in which every other
/// thread formats by it. One category of the environment that names no locale makes that call
/// fail as a whole and leaves the codeset of the process, so it does here.
std::string ReadEnvironmentCodeset()
{
    const locale_t environment = ::newlocale(LC_ALL_MASK, "", nullptr);
    if (environment == nullptr)
        return ::nl_langinfo(CODESET);  // NOLINT(concurrency-mt-unsafe): it is, in glibc
    std::string codeset = ::nl_langinfo_l(CODESET, environment);
    ::freelocale(environment);
    return codeset;
}

/// Room for one conversion, kept for the next. A result is made from it in its exact size, so it
/// costs one allocation and no zero-filling.
class Scratch {
public:
    /// At least `bytes` bytes, aligned for wide characters, until the next call.
    wchar_t* provide(std::size_t bytes)
    {
        if (mBytes < bytes) {
            mBytes = 0;
            mRoom.reset();
            const std::size_t wanted = std::max(bytes, std::size_t{4096});
            mRoom.reset(new wchar_t[wanted / sizeof(wchar_t) + 1]);
            mBytes = wanted;
        }
        return mRoom.get();
    }

    /// A thread that once converted a very long text does not hold its room for ever.
    void release()
    {
        if (mBytes > sScratchKeptBytes) {
            mBytes = 0;
            mRoom.reset();
        }
    }

private:
    std::unique_ptr<wchar_t[]> mRoom;
    std::size_t mBytes = 0;
};

struct StringUtilsThreadContext {
    explicit StringUtilsThreadContext(const std::string& codeset)
    {
        const std::string sets[sCharSetCount] = {codeset, "UTF-8", "US-ASCII"};
        const std::string ending = "//TRANSLIT//IGNORE";
        for (std::size_t from = 0; from < sCharSetCount; ++from) {
            mToWide[from].open("WCHAR_T" + ending, sets[from]);
            mFromWide[from].open(sets[from] + ending, "WCHAR_T");
            for (std::size_t to = 0; to < sCharSetCount; ++to) {
                if (from == to)
                    continue;
                mPairs[from][to].open(sets[to] + ending, sets[from]);
                mPairs[from][to].probeAscii();
            }
        }
    }

    // By kyCharSet. The pairs of a set with itself are never opened, so they fail.
    impl::Converter mToWide[sCharSetCount];
    impl::Converter mFromWide[sCharSetCount];
    impl::Converter mPairs[sCharSetCount][sCharSetCount];
    Scratch mScratch;
    volatile std::sig_atomic_t mIsBusy = 0;  // see BusyMark
};

std::unique_ptr<StringUtilsThreadContext> MakeContext()
{
    const CodesetLock lock;
    std::string codeset = ReadEnvironmentCodeset();
    auto context = std::make_unique<StringUtilsThreadContext>(codeset);
    if (sCodeset == nullptr)
        sCodeset = new std::string;
    sCodeset->swap(codeset);
    return context;
}

/// Also the destructor of the thread-specific key: it may run after the termination, and more than
/// once for a thread that converts in another such destructor. The mutex and the mark hold even
/// while the process or the thread shuts down: both are constant-initialised and have trivial
/// destructors, so they are there before and after everything else.
void DestroyContext(void* context)
{
    const CodesetLock lock;
    delete static_cast<StringUtilsThreadContext*>(context);
}

/// Null outside initialisation, in a signal handler that interrupted this file, and while the
/// system refuses to keep a context.
StringUtilsThreadContext* ContextOfThisThread()
{
    const pthread_key_t* const key =
        __atomic_load_n(&kyStringUtils::msThreadContent, __ATOMIC_ACQUIRE);
    if (key == nullptr)
        return nullptr;
    // A new key never shows what a thread kept under an older one with the same number
    // (pthread_key_create(3p)), so a context of an earlier life is not seen.
    auto* const context = static_cast<StringUtilsThreadContext*>(::pthread_getspecific(*key));
    if (context != nullptr)
        return context->mIsBusy == 0 ? context : nullptr;
    if (tIsLocking != 0)
        return nullptr;
    std::unique_ptr<StringUtilsThreadContext> made = MakeContext();
    if (::pthread_setspecific(*key, made.get()) != 0) {
        DestroyContext(made.release());
        return nullptr;
    }
    return made.release();
}

std::size_t Index(kyStringUtils::kyCharSet set)
{
    return static_cast<std::size_t>(set);
}

bool IsKnown(kyStringUtils::kyCharSet charSet)
{
    return charSet >= 0 && static_cast<std::size_t>(charSet) < sCharSetCount;
}

/// Converts a text with its final zero and hands the result without it to a new `Result`.
template <typename Result, typename Text>
Result ConvertText(StringUtilsThreadContext& context, impl::Converter& converter, const Text& text,
                   std::size_t capacity)
{
    using Unit = typename Result::value_type;
    const BusyMark busy(context.mIsBusy);
    wchar_t* const room = context.mScratch.provide(capacity);
    const std::size_t written =
        converter.convert(reinterpret_cast<const char*>(text.c_str()),
                          (text.size() + 1) * sizeof(typename Text::value_type),
                          reinterpret_cast<char*>(room), capacity);
    Result result;
    if (written != impl::Converter::sFailed && written >= sizeof(Unit))
        result.assign(reinterpret_cast<const Unit*>(room), written / sizeof(Unit) - 1);
    context.mScratch.release();
    return result;
}

/// A set's name without the endings that iconv_open(3) knows.
std::string_view NameOfSet(std::string_view code)
{
    return code.substr(0, code.find('/'));
}

/// Whether nothing of one text can change how the next one converts. By name, since a probe cannot
/// find every state (a held-back letter, a byte order mark): sets that are not listed have one.
bool HasNoState(std::string_view set)
{
    return set == "UTF-8" || set == "WCHAR_T" || set == "US-ASCII" || set == "ANSI_X3.4-1968" ||
           set.starts_with("ISO-8859-");
}

template <typename T>
T* Take(T*& pointer)
{
    return __atomic_exchange_n(&pointer, nullptr, __ATOMIC_ACQ_REL);
}

template <typename T>
void Publish(T*& pointer, T* value)
{
    __atomic_store_n(&pointer, value, __ATOMIC_RELEASE);
}

}  // namespace

namespace impl {

std::string GetProcessCodeset()
{
    const CodesetLock lock;
    return sCodeset != nullptr ? *sCodeset : std::string();
}

Converter::~Converter()
{
    if (mHandle != reinterpret_cast<iconv_t>(-1))  // NOLINT(performance-no-int-to-ptr)
        ::iconv_close(mHandle);
}

void Converter::open(const std::string& targetCode, const std::string& sourceCode)
{
    mHandle = ::iconv_open(targetCode.c_str(), sourceCode.c_str());
    const std::string_view target = NameOfSet(targetCode);
    const std::string_view source = NameOfSet(sourceCode);
    mCopiesUtf8 = target == "UTF-8" && source == "UTF-8";
    mKeepsNoState = HasNoState(target) && HasNoState(source);
}

std::size_t Converter::convert(const char* input, std::size_t inputBytes, char* output,
                               std::size_t outputBytes)
{
    if (mHandle == reinterpret_cast<iconv_t>(-1))  // NOLINT(performance-no-int-to-ptr)
        return sFailed;
    // A stateful set may have been left in a shift or behind its byte order mark, and any set
    // anywhere by a call that failed.
    if (!mIsAtStart)
        ::iconv(mHandle, nullptr, nullptr, nullptr, nullptr);
    mIsAtStart = false;
    char* in = const_cast<char*>(input);
    char* out = output;
    std::size_t outLeft = outputBytes;
    // kept: -1 is a failure also when all input was consumed, as after an invalid byte that the
    // ignore ending skipped, and when the room was too small.
    if (::iconv(mHandle, &in, &inputBytes, &out, &outLeft) == sFailed)
        return sFailed;
    mIsAtStart = mKeepsNoState;
    return outputBytes - outLeft;
}

void Converter::probeAscii()
{
    // Sets that give an ASCII byte another meaning (the yen of Shift JIS) or start a shift sequence
    // with one (shift-out, "+" of UTF-7, "~" of HZ) change or refuse a text of all 128. The escape
    // of ISO-2022-JP passes as a plain byte there and wants a whole sequence, hence the second
    // part.
    std::string ascii(128, '\0');
    std::iota(ascii.begin(), ascii.end(), '\0');
    ascii += "\x1B$B00\x1B(B";
    std::array<char, 1024> converted{};
    const std::size_t written =
        convert(ascii.data(), ascii.size(), converted.data(), converted.size());
    mCopiesAscii = written != sFailed && ascii == std::string_view(converted.data(), written);
}

}  // namespace impl

bool kyStringUtils::InitializeStringUtils()
{
    if (msCLocale != nullptr)
        return false;
    std::unique_ptr<locale_t> cLocale(new (std::nothrow) locale_t());
    if (cLocale == nullptr)
        return false;
    *cLocale = ::newlocale(LC_ALL_MASK, "C", nullptr);
    Publish(msCLocale, cLocale.release());

    auto key = std::make_unique<pthread_key_t>();
    // Without a key (all 1024 taken) the rest works, and every conversion is empty.
    if (::pthread_key_create(key.get(), DestroyContext) == 0)
        Publish(msThreadContent, key.release());
    Publish(msCplusLocale, new std::locale("C"));
    InitializeForThread();
    return true;
}

void kyStringUtils::InitializeForThread()
{
    ContextOfThisThread();
}

bool kyStringUtils::TerminateStringUtils()
{
    const std::unique_ptr<locale_t> cLocale(Take(msCLocale));
    if (cLocale == nullptr)
        return false;
    if (*cLocale != nullptr)
        ::freelocale(*cLocale);
    delete Take(msCplusLocale);

    const std::unique_ptr<pthread_key_t> key(Take(msThreadContent));
    if (key != nullptr) {
        DestroyContext(::pthread_getspecific(*key));
        // kept: contexts of threads that live on are lost with the key; nobody else may close what
        // such a thread could be using.
        ::pthread_key_delete(*key);
    }
    return true;
}

void impl::CloseConvertersOfThisThread()
{
    const pthread_key_t* const key =
        __atomic_load_n(&kyStringUtils::msThreadContent, __ATOMIC_ACQUIRE);
    void* const context = key != nullptr ? ::pthread_getspecific(*key) : nullptr;
    if (context == nullptr)
        return;
    ::pthread_setspecific(*key, nullptr);
    DestroyContext(context);
}

std::string kyStringUtils::convertCharset(const std::string& text, kyCharSet from, kyCharSet to)
{
    StringUtilsThreadContext* const context = ContextOfThisThread();
    if (context == nullptr || !IsKnown(from) || !IsKnown(to))
        return {};
    // kept: from a set to itself nothing is copied; there is no such pair, so the result is empty.
    impl::Converter& converter = context->mPairs[Index(from)][Index(to)];
    if ((converter.copiesAscii() && impl::IsAscii(text)) ||
        (converter.copiesUtf8() && IsUtf8String(text)))
        return text;
    // kept: a text that grows more than twofold gives an empty result, it is not tried again.
    return ConvertText<std::string>(*context, converter, text, 2 * (text.size() + 1));
}

std::wstring kyStringUtils::convertToUnicode(const std::string& text, kyCharSet from)
{
    StringUtilsThreadContext* const context = ContextOfThisThread();
    if (context == nullptr || !IsKnown(from))
        return {};
    return ConvertText<std::wstring>(*context, context->mToWide[Index(from)], text,
                                     (text.size() + 1) * sizeof(wchar_t));
}

std::string kyStringUtils::convertTo8Bits(const std::wstring& text, kyCharSet to)
{
    StringUtilsThreadContext* const context = ContextOfThisThread();
    if (context == nullptr || !IsKnown(to))
        return {};
    return ConvertText<std::string>(*context, context->mFromWide[Index(to)], text,
                                    sBytesPerCharacter * (text.size() + 1));
}

std::string kyStringUtils::UnknownEncodingToUtf8(const std::string& text, char replacement)
{
    if (IsUtf8String(text))
        return text;
    // By way of wide characters, which have room for texts that grow more than twofold.
    std::string result = convertTo8Bits(convertToUnicode(text, CharSetLocal8Bit), CharSetUtf8);
    if (!result.empty())
        return result;
    const char safeReplacement = impl::IsAscii({&replacement, 1}) ? replacement : '?';
    for (auto position = text.begin(); position != text.end();) {
        const auto invalid = utf8::find_invalid(position, text.end());
        result.append(position, invalid);
        if (invalid != text.end() && safeReplacement != '\0')
            result += safeReplacement;
        position = invalid == text.end() ? invalid : std::next(invalid);
    }
    return result;
}

bool kyStringUtils::IsUtf8String(const std::string& text)
{
    return utf8::is_valid(text.begin(), text.end());
}

std::size_t kyStringUtils::CountUtf8Char(const std::string& text)
{
    // utfcpp tells a cut sequence, a surrogate and a bad byte apart by three types of exception;
    // our callers get one.
    const auto invalid = utf8::find_invalid(text.begin(), text.end());
    if (invalid != text.end())
        throw utf8::invalid_utf8(*invalid);
    return static_cast<std::size_t>(utf8::unchecked::distance(text.begin(), text.end()));
}

}  // namespace ky
