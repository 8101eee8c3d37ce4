// INI files of 100 sections: loading one and reading every key by its path, and saving one, beside
// the peers that are installed. Ours gives typed values and is on disk when it is saved; peers give
// texts. QSettings decodes when it is read, Poco's IniFileConfiguration does not save. TMPDIR
// chooses the file system.

#include "ky/kyIniFile.h"
#include "ky/kySystem.h"

#include <benchmark/benchmark.h>

#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <unistd.h>
#include <cstdlib>

#ifdef KY_HAVE_BOOST
#include <boost/property_tree/ini_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#endif
#ifdef KY_HAVE_QT
#include <QSettings>
#endif
#ifdef KY_HAVE_POCO
#include <Poco/AutoPtr.h>
#include <Poco/Util/IniFileConfiguration.h>
#endif
#ifdef KY_HAVE_SIMPLEINI
#define SI_NO_CONVERSION
#include <SimpleIni.h>
#endif

namespace {

constexpr long sSections = 100;

const char* const sFolder = std::getenv("TMPDIR") != nullptr ? std::getenv("TMPDIR") : "/tmp";
const std::string sInput = std::string(sFolder) + "/ky-bench-in-" + std::to_string(::getpid());
const std::string sOutput = std::string(sFolder) + "/ky-bench-out-" + std::to_string(::getpid());

struct Files {
    Files() { ky::initializeKySystem(ky::InitType::Light, false); }
    ~Files()
    {
        ::unlink(sInput.c_str());
        ::unlink(sOutput.c_str());
        ky::terminateKySystem();
    }
} sFiles;

std::string SectionName(long key, long keys)
{
    return "section" + std::to_string(key / (keys / sSections));
}

std::string ValueText(long key)
{
    switch (key % 4) {
        case 0:
            return std::to_string(key * 7919);
        case 1:
            return std::to_string(key) + ".125";
        case 2:
            return key % 8 == 2 ? "true" : "false";
        default:
            return "a text of some words, number " + std::to_string(key);
    }
}

void WriteInput(long keys)
{
    std::ofstream file(sInput);
    for (long key = 0; key < keys; ++key) {
        if (key % (keys / sSections) == 0)
            file << '[' << SectionName(key, keys) << "]\n";
        file << "setting" << key << '=' << ValueText(key) << '\n';
    }
}

/// The paths of all keys, with `separator` between section and key.
std::vector<std::string> Paths(long keys, char separator)
{
    std::vector<std::string> paths;
    for (long key = 0; key < keys; ++key)
        paths.push_back(SectionName(key, keys) + separator + "setting" + std::to_string(key));
    return paths;
}

void Check(bool isRight)
{
    if (!isRight)
        throw std::runtime_error("a value was lost");
}

struct Ours {
    static constexpr char separator = '/';
    bool load() { return ky::LoadIniFile(sInput, map); }
    bool has(const std::string& path) const { return map.findPathImpl(path) != nullptr; }
    bool save() const { return ky::SaveIniFile(sOutput, map, false); }
    ky::kyVariant::kyVariantMapImpl map;
};

#ifdef KY_HAVE_BOOST
struct Boost {
    static constexpr char separator = '/';
    bool load()
    {
        boost::property_tree::read_ini(sInput, tree);
        return true;
    }
    bool has(const std::string& path) const
    {
        return tree.get_child_optional(boost::property_tree::ptree::path_type(path, '/'))
            .has_value();
    }
    bool save() const
    {
        boost::property_tree::write_ini(sOutput, tree);
        return true;
    }
    boost::property_tree::ptree tree;
};
#endif

#ifdef KY_HAVE_QT
struct Qt {
    static constexpr char separator = '/';
    bool load()
    {
        settings =
            std::make_unique<QSettings>(QString::fromStdString(sInput), QSettings::IniFormat);
        return settings->status() == QSettings::NoError;
    }
    bool has(const std::string& path) const
    {
        return settings->value(QString::fromStdString(path)).isValid();
    }
    /// It writes what has changed only, so everything must.
    void prepareSave()
    {
        auto changed =
            std::make_unique<QSettings>(QString::fromStdString(sOutput), QSettings::IniFormat);
        changed->clear();
        for (const QString& key : settings->allKeys())
            changed->setValue(key, settings->value(key));
        saved = std::move(changed);
    }
    bool save() const
    {
        saved->sync();
        return saved->status() == QSettings::NoError;
    }
    std::unique_ptr<QSettings> settings, saved;
};
#endif

#ifdef KY_HAVE_POCO
struct Poco {
    static constexpr char separator = '.';
    bool load()
    {
        configuration = new ::Poco::Util::IniFileConfiguration(sInput);
        return true;
    }
    bool has(const std::string& path) const { return !configuration->getString(path).empty(); }
    ::Poco::AutoPtr<::Poco::Util::IniFileConfiguration> configuration;
};
#endif

#ifdef KY_HAVE_SIMPLEINI
struct SimpleIni {
    static constexpr char separator = '\0';  // ends the section as the C text that is asked for
    bool load() { return ini.LoadFile(sInput.c_str()) == SI_OK; }
    bool has(const std::string& path) const
    {
        const char* const section = path.c_str();
        return ini.GetValue(section, section + std::string_view(section).size() + 1) != nullptr;
    }
    bool save() const { return ini.SaveFile(sOutput.c_str()) == SI_OK; }
    CSimpleIniCaseA ini;
};
#endif

template <typename Store>
void LoadAndRead(benchmark::State& state)
{
    WriteInput(state.range(0));
    const auto paths = Paths(state.range(0), Store::separator);
    for (auto _ : state) {
        Store store;
        Check(store.load());
        for (const std::string& path : paths)
            Check(store.has(path));
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

template <typename Store>
void Save(benchmark::State& state)
{
    WriteInput(state.range(0));
    Store store;
    Check(store.load());
    for (auto _ : state) {
        if constexpr (requires { store.prepareSave(); }) {
            state.PauseTiming();
            store.prepareSave();
            state.ResumeTiming();
        }
        Check(store.save());
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

#define KY_BENCH(function, store)       \
    BENCHMARK_TEMPLATE(function, store) \
        ->RangeMultiplier(10)           \
        ->Range(1'000, 100'000)         \
        ->Unit(benchmark::kMicrosecond) \
        ->UseRealTime()

KY_BENCH(LoadAndRead, Ours);
KY_BENCH(Save, Ours);
#ifdef KY_HAVE_BOOST
KY_BENCH(LoadAndRead, Boost);
KY_BENCH(Save, Boost);
#endif
#ifdef KY_HAVE_QT
KY_BENCH(LoadAndRead, Qt);
KY_BENCH(Save, Qt);
#endif
#ifdef KY_HAVE_POCO
KY_BENCH(LoadAndRead, Poco);
#endif
#ifdef KY_HAVE_SIMPLEINI
KY_BENCH(LoadAndRead, SimpleIni);
KY_BENCH(Save, SimpleIni);
#endif

}  // namespace
