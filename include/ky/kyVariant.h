#pragma once

#include "ky/kyExport.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

namespace ky {

/// A value whose type is known when the program runs: a setting, say.
///
/// Maps and lists hold values in turn, to any depth: nothing here takes more of the stack for a
/// deep value than for a flat one. A copy shares nothing with its origin, a value that was moved
/// from is Null, and text is UTF-8 by convention. Only running out of memory throws. As with
/// `std::string`, several threads may read one object while none changes it.
class KY_API kyVariant {
public:
    /// What a value is.
    enum Type : int {
        Null = 0,  ///< no value
        Integer = 1,
        Real = 2,
        String = 3,
        Bool = 4,
        Map = 5,
        List = 6,
        RealVector = 7,
        RealMatrix = 8,
    };

    class kyVariantMapImpl;
    /// The content of a List and of a RealVector.
    using kyVariantListImpl = std::vector<kyVariant>;
    using kyRealVector = std::vector<double>;

    /// `values` holds the rows one after the other, `rows * columns` numbers in all.
    struct kyRealMatrix {
        /// The shape and the numbers; equal where all three are.
        std::size_t rows = 0;
        std::size_t columns = 0;
        std::vector<double> values;
        bool operator==(const kyRealMatrix& other) const
        {
            return rows == other.rows && columns == other.columns && values == other.values;
        }
    };

    kyVariant() noexcept;
    /// Bool for `bool`, Real for floating point, Integer for all others. What does not fit into 64
    /// signed bits is the largest Integer.
    template <typename Number, std::enable_if_t<std::is_arithmetic_v<Number>, int> = 0>
    kyVariant(Number value) noexcept : kyVariant(ToStored(value), Stored())
    {}
    /// A null pointer gives Null.
    kyVariant(const char* text);
    kyVariant(std::string text) noexcept;
    kyVariant(std::string_view text);
    kyVariant(kyVariantMapImpl map);
    kyVariant(kyVariantListImpl list);
    kyVariant(kyRealVector vector) noexcept;
    kyVariant(kyRealMatrix matrix);
    kyVariant(const kyVariant& other);
    kyVariant(kyVariant&& other) noexcept;
    ~kyVariant();
    kyVariant& operator=(const kyVariant& other);
    kyVariant& operator=(kyVariant&& other) noexcept;

    /// Constant time; never fails.
    Type getType() const noexcept { return static_cast<Type>(mValue.index()); }
    /// "NULL", "INTEGER", "REAL", "STRING", "BOOL", "MAP", "LIST", "REAL_VECTOR", "REAL_MATRIX".
    const char* getTypeName() const noexcept;

    /// The number that this is: of a Real the part before the point, with the nearest Integer for
    /// what is out of range and 0 for NaN; 0 and 1 of a Bool; of a String what it would be as an
    /// unquoted value of an INI file, but with white space around it none. 0 of anything else.
    std::int64_t toInteger() const;
    /// The same without truncation.
    double toReal() const;
    /// Whether a number is not 0; of a String what `kyStringUtils::parseBool` says. False of
    /// anything else.
    bool toBool() const;
    /// A String as it is; "" of Null; "true" or "false"; a Real in the shortest text that reads
    /// back equal and is no integer ("1.0", "1e+22", "-0.0", "inf", "-inf", "nan"), whatever the
    /// locale. Others are for people: "{key: [1, 2.0]}", with the texts in them in double quotes.
    std::string toString() const;

    /// The value itself, borrowed until this changes; null when it is of another type.
    const std::string* getString() const noexcept { return std::get_if<std::string>(&mValue); }
    const kyVariantMapImpl* getMap() const noexcept;
    const kyVariantListImpl* getList() const noexcept;
    const kyRealVector* getRealVector() const noexcept { return std::get_if<RealVector>(&mValue); }
    const kyRealMatrix* getRealMatrix() const noexcept;
    kyVariantMapImpl* editMap() noexcept;
    kyVariantListImpl* editList() noexcept;

    /// Same type and same value. An Integer never equals a Real, and NaN nothing.
    bool operator==(const kyVariant& other) const;
    bool operator!=(const kyVariant& other) const { return !(*this == other); }

private:
    struct NestedMap;
    struct NestedList;
    struct Copying;
    class Printing;
    // In the order of `Type`.
    using Value = std::variant<std::monostate, std::int64_t, double, std::string, bool,
                               std::unique_ptr<NestedMap>, std::unique_ptr<NestedList>,
                               kyRealVector, std::unique_ptr<kyRealMatrix>>;
    struct Stored {};

    kyVariant(std::int64_t value, Stored) noexcept;
    kyVariant(double value, Stored) noexcept;
    kyVariant(bool value, Stored) noexcept;

    template <typename Number>
    static constexpr auto ToStored(Number value) noexcept
    {
        if constexpr (std::is_same_v<Number, bool>)
            return value;
        else if constexpr (std::is_floating_point_v<Number>)
            return static_cast<double>(value);
        else if constexpr (std::is_unsigned_v<Number> && sizeof(Number) >= sizeof(std::int64_t))
            return value > Number{INT64_MAX} ? std::int64_t{INT64_MAX}
                                             : static_cast<std::int64_t>(value);
        else
            return static_cast<std::int64_t>(value);
    }

    bool isNested() const noexcept { return getType() == Map || getType() == List; }
    void dismantle() noexcept;
    kyVariant& rest() noexcept;
    static bool EqualFlat(const kyVariant& one, const kyVariant& other);

    Value mValue;
};

/// Values by key, in the order of the keys' bytes. Keys may be any bytes.
///
/// A path is the keys from here to a value with separators between them. Without a key, or with an
/// empty one in it, it names nothing, and a key that has the separator in it is in no path.
/// Addresses of values and maps stay valid until they are removed. Every operation takes time
/// for the length of its path, and for the logarithm of the number of keys at each step.
class KY_API kyVariant::kyVariantMapImpl {
public:
    /// Goes over pairs of key and value; stays valid until its entry is removed.
    using const_iterator = std::map<std::string, kyVariant, std::less<>>::const_iterator;

    /// Copies share nothing, and what was moved from is empty.
    kyVariantMapImpl() = default;
    kyVariantMapImpl(const kyVariantMapImpl&) = default;
    kyVariantMapImpl(kyVariantMapImpl&&) = default;
    /// By value, since it may be a part of this map.
    kyVariantMapImpl& operator=(kyVariantMapImpl other) noexcept
    {
        mEntries.swap(other.mEntries);
        return *this;
    }

    /// The entries of this map itself, in the order of their keys; `clear` removes them with all
    /// that is below them.
    std::size_t size() const noexcept { return mEntries.size(); }
    bool empty() const noexcept { return mEntries.empty(); }
    const_iterator begin() const noexcept { return mEntries.begin(); }
    const_iterator end() const noexcept { return mEntries.end(); }
    void clear() noexcept { mEntries.clear(); }

    /// Null when there is no such key.
    const kyVariant* find(std::string_view key) const;
    /// What the key holds; when there is no such key, a new Null.
    kyVariant& edit(std::string_view key);
    /// False, and no change, when the key is there.
    bool insert(std::string_view key, kyVariant value);

    /// The value or map at the path; null when there is none.
    const kyVariant* findPathImpl(std::string_view path, char separator = '/') const;
    /// The value at the path; when there is none, a new Null with the maps that lead there. Null,
    /// and no change, where a value cannot stand: the path names nothing, is that of a map, or
    /// leads through something that is no map.
    kyVariant* editValuePath(std::string_view path, char separator = '/');
    /// The same for a map, which is made when there is none.
    kyVariantMapImpl* editMapPath(std::string_view path, char separator = '/');
    /// Removes a value or a whole map. False when there is none.
    bool removePath(std::string_view path, char separator = '/');

    /// Puts all that is no map into `out` by its path, over what is there with the same path; maps
    /// without values leave nothing.
    void toFlattenMap(std::map<std::string, kyVariant>& out, char separator = '/') const;

    /// Same keys, and the same value for each.
    bool operator==(const kyVariantMapImpl& other) const { return mEntries == other.mEntries; }
    bool operator!=(const kyVariantMapImpl& other) const { return !(*this == other); }

private:
    friend class kyVariant;

    std::map<std::string, kyVariant, std::less<>> mEntries;
};

}  // namespace ky
