#include "ky/kyVariant.h"

#include "ky/kyStringUtils.h"

#include "text/ScalarText.h"

#include <cmath>
#include <iterator>

namespace ky {

// A value with values in it, and room for another such value that waits to be destroyed.
struct kyVariant::NestedMap {
    kyVariantMapImpl content;
    kyVariant rest;
};
struct kyVariant::NestedList {
    kyVariantListImpl content;
    kyVariant rest;
};

/// A deep copy under way: the maps and lists that are made and not yet filled.
struct kyVariant::Copying {
    std::vector<std::pair<const kyVariant*, kyVariant*>> open;

    void copyFlat(const kyVariant& from, kyVariant& to)
    {
        if (from.isNested()) {
            if (from.getType() == Map)
                to.mValue = std::make_unique<NestedMap>();
            else
                to.mValue = std::make_unique<NestedList>();
            open.emplace_back(&from, &to);
        } else if (const kyRealMatrix* const matrix = from.getRealMatrix()) {
            to.mValue = std::make_unique<kyRealMatrix>(*matrix);
        } else if (const std::string* const text = from.getString()) {
            to.mValue = *text;
        } else if (const kyRealVector* const vector = from.getRealVector()) {
            to.mValue = *vector;
        } else if (from.getType() == Integer) {
            to.mValue = std::get<Integer>(from.mValue);
        } else if (from.getType() == Real) {
            to.mValue = std::get<Real>(from.mValue);
        } else if (from.getType() == Bool) {
            to.mValue = std::get<Bool>(from.mValue);
        }
    }

    void fill(const kyVariant& from, kyVariant& to)
    {
        if (const kyVariantListImpl* const list = from.getList()) {
            kyVariantListImpl& copies = *to.editList();
            copies.resize(list->size());
            for (std::size_t i = 0; i < list->size(); ++i)
                copyFlat((*list)[i], copies[i]);
            return;
        }
        auto& copies = to.editMap()->mEntries;
        for (const auto& [key, value] : *from.getMap())
            copyFlat(value, copies.emplace_hint(copies.end(), key, kyVariant())->second);
    }
};

kyVariant::kyVariant() noexcept = default;

kyVariant::kyVariant(std::int64_t value, Stored) noexcept : mValue(value) {}

kyVariant::kyVariant(double value, Stored) noexcept : mValue(value) {}

kyVariant::kyVariant(bool value, Stored) noexcept : mValue(value) {}

kyVariant::kyVariant(const char* text)
{
    if (text != nullptr)
        mValue.emplace<String>(text);
}

kyVariant::kyVariant(std::string text) noexcept : mValue(std::move(text)) {}

kyVariant::kyVariant(std::string_view text) : mValue(std::in_place_index<String>, text) {}

kyVariant::kyVariant(kyVariantMapImpl map) : mValue(std::make_unique<NestedMap>())
{
    *editMap() = std::move(map);
}

kyVariant::kyVariant(kyVariantListImpl list) : mValue(std::make_unique<NestedList>())
{
    *editList() = std::move(list);
}

kyVariant::kyVariant(kyRealVector vector) noexcept : mValue(std::move(vector)) {}

kyVariant::kyVariant(kyRealMatrix matrix)
    : mValue(std::make_unique<kyRealMatrix>(std::move(matrix)))
{}

kyVariant::kyVariant(const kyVariant& other)
{
    Copying copying;
    copying.copyFlat(other, *this);
    while (!copying.open.empty()) {
        const auto [from, to] = copying.open.back();
        copying.open.pop_back();
        copying.fill(*from, *to);
    }
}

kyVariant::kyVariant(kyVariant&& other) noexcept : mValue(std::move(other.mValue))
{
    other.mValue = Value();
}

kyVariant::~kyVariant()
{
    if (isNested())
        dismantle();
}

kyVariant& kyVariant::operator=(const kyVariant& other)
{
    // By a copy: `other` may be a part of this.
    return *this = kyVariant(other);
}

kyVariant& kyVariant::operator=(kyVariant&& other) noexcept
{
    // `other` may be a part of what goes.
    kyVariant taken(std::move(other));
    mValue = std::move(taken.mValue);
    taken.mValue = Value();
    return *this;
}

kyVariant& kyVariant::rest() noexcept
{
    const auto* const map = std::get_if<Map>(&mValue);
    return map != nullptr ? (*map)->rest : (*std::get_if<List>(&mValue))->rest;
}

/// Takes every map and list out of the one that it is in before that is destroyed. What waits is
/// chained, so that nothing is allocated here.
void kyVariant::dismantle() noexcept
{
    kyVariant waiting(std::move(*this));
    while (waiting.isNested()) {
        kyVariant current(std::move(waiting));
        waiting = std::move(current.rest());
        const auto take = [&waiting](kyVariant& value) {
            if (!value.isNested())
                return;
            value.rest() = std::move(waiting);
            waiting = std::move(value);
        };
        if (kyVariantListImpl* const list = current.editList()) {
            for (kyVariant& value : *list)
                take(value);
        } else {
            for (auto& entry : current.editMap()->mEntries)
                take(entry.second);
        }
        current.mValue = Value();
    }
}

const char* kyVariant::getTypeName() const noexcept
{
    static constexpr const char* names[] = {"NULL", "INTEGER", "REAL",        "STRING",     "BOOL",
                                            "MAP",  "LIST",    "REAL_VECTOR", "REAL_MATRIX"};
    static_assert(std::size(names) == std::variant_size_v<Value>);
    return names[getType()];
}

std::int64_t kyVariant::toInteger() const
{
    if (const std::string* const text = getString()) {
        const kyVariant number = impl::ParseScalar(*text, impl::CLocale());
        return number.getType() == String ? 0 : number.toInteger();
    }
    if (getType() != Real)
        return getType() == Integer ? std::get<Integer>(mValue) : std::int64_t{toBool()};
    const double value = std::get<Real>(mValue);
    constexpr double limit = 9223372036854775808.0;  // 2^63, the first above the range
    if (value >= limit)
        return INT64_MAX;
    if (value < -limit)
        return INT64_MIN;
    return std::isnan(value) ? 0 : static_cast<std::int64_t>(value);
}

double kyVariant::toReal() const
{
    if (getType() == Real)
        return std::get<Real>(mValue);
    const std::string* const text = getString();
    if (text == nullptr)
        return static_cast<double>(toInteger());
    const kyVariant number = impl::ParseScalar(*text, impl::CLocale());
    return number.getType() == String ? 0 : number.toReal();
}

bool kyVariant::toBool() const
{
    switch (getType()) {
        case Bool:
            return std::get<Bool>(mValue);
        case Integer:
            return std::get<Integer>(mValue) != 0;
        case Real:
            return std::get<Real>(mValue) != 0;
        case String: {
            bool result = false;
            return kyStringUtils::parseBool(*getString(), result) && result;
        }
        default:
            return false;
    }
}

const kyVariant::kyVariantMapImpl* kyVariant::getMap() const noexcept
{
    const auto* const map = std::get_if<Map>(&mValue);
    return map != nullptr ? &(*map)->content : nullptr;
}

const kyVariant::kyVariantListImpl* kyVariant::getList() const noexcept
{
    const auto* const list = std::get_if<List>(&mValue);
    return list != nullptr ? &(*list)->content : nullptr;
}

const kyVariant::kyRealMatrix* kyVariant::getRealMatrix() const noexcept
{
    const auto* const matrix = std::get_if<RealMatrix>(&mValue);
    return matrix != nullptr ? matrix->get() : nullptr;
}

kyVariant::kyVariantMapImpl* kyVariant::editMap() noexcept
{
    return const_cast<kyVariantMapImpl*>(getMap());
}

kyVariant::kyVariantListImpl* kyVariant::editList() noexcept
{
    return const_cast<kyVariantListImpl*>(getList());
}

/// For maps and lists, whether they have the same keys or the same size.
bool kyVariant::EqualFlat(const kyVariant& one, const kyVariant& other)
{
    if (one.getType() != other.getType())
        return false;
    if (const kyVariantMapImpl* const map = one.getMap()) {
        const auto& entries = map->mEntries;
        const auto& others = other.getMap()->mEntries;
        return std::equal(entries.begin(), entries.end(), others.begin(), others.end(),
                          [](const auto& a, const auto& b) { return a.first == b.first; });
    }
    if (const kyVariantListImpl* const list = one.getList())
        return list->size() == other.getList()->size();
    if (const kyRealMatrix* const matrix = one.getRealMatrix())
        return *matrix == *other.getRealMatrix();
    return one.mValue == other.mValue;
}

bool kyVariant::operator==(const kyVariant& other) const
{
    std::vector<std::pair<const kyVariant*, const kyVariant*>> open;
    bool isEqual = true;
    const auto compare = [&](const kyVariant& a, const kyVariant& b) {
        isEqual = isEqual && EqualFlat(a, b);
        if (isEqual && a.isNested())
            open.emplace_back(&a, &b);
    };
    compare(*this, other);
    while (isEqual && !open.empty()) {
        const auto [one, two] = open.back();
        open.pop_back();
        if (const kyVariantListImpl* const list = one->getList()) {
            for (std::size_t i = 0; i < list->size(); ++i)
                compare((*list)[i], (*two->getList())[i]);
            continue;
        }
        auto position = two->getMap()->begin();
        for (const auto& entry : *one->getMap())
            compare(entry.second, (position++)->second);
    }
    return isEqual;
}

}  // namespace ky
