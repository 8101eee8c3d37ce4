#include "ky/kyVariant.h"

#include "text/PathKeys.h"

namespace ky {

using kyVariantMapImpl = kyVariant::kyVariantMapImpl;

const kyVariant* kyVariantMapImpl::find(std::string_view key) const
{
    const auto position = mEntries.find(key);
    return position != mEntries.end() ? &position->second : nullptr;
}

kyVariant& kyVariantMapImpl::edit(std::string_view key)
{
    const auto position = mEntries.lower_bound(key);
    if (position != mEntries.end() && position->first == key)
        return position->second;
    return mEntries.emplace_hint(position, key, kyVariant())->second;
}

bool kyVariantMapImpl::insert(std::string_view key, kyVariant value)
{
    const auto position = mEntries.lower_bound(key);
    if (position != mEntries.end() && position->first == key)
        return false;
    mEntries.emplace_hint(position, key, std::move(value));
    return true;
}

const kyVariant* kyVariantMapImpl::findPathImpl(std::string_view path, char separator) const
{
    const kyVariantMapImpl* map = this;
    const kyVariant* value = nullptr;
    for (impl::PathKeys keys(path, separator); !keys.empty(); map = value->getMap()) {
        const std::string_view key = keys.take();
        value = map != nullptr && !key.empty() ? map->find(key) : nullptr;
        if (value == nullptr)
            return nullptr;
    }
    return value;
}

kyVariant* kyVariantMapImpl::editValuePath(std::string_view path, char separator)
{
    if (!impl::IsPath(path, separator))
        return nullptr;
    const std::size_t last = path.find_last_of(separator) + 1;
    kyVariantMapImpl* const map =
        last == 0 ? this : editMapPath(path.substr(0, last - 1), separator);
    kyVariant* const value = map != nullptr ? &map->edit(path.substr(last)) : nullptr;
    return value == nullptr || value->getType() == kyVariant::Map ? nullptr : value;
}

kyVariantMapImpl* kyVariantMapImpl::editMapPath(std::string_view path, char separator)
{
    if (!impl::IsPath(path, separator))
        return nullptr;
    kyVariantMapImpl* map = this;
    for (impl::PathKeys keys(path, separator); map != nullptr && !keys.empty();) {
        const std::string_view key = keys.take();
        const auto position = map->mEntries.lower_bound(key);
        if (position != map->mEntries.end() && position->first == key)
            map = position->second.editMap();
        else
            map = map->mEntries.emplace_hint(position, key, kyVariantMapImpl())->second.editMap();
    }
    return map;
}

bool kyVariantMapImpl::removePath(std::string_view path, char separator)
{
    const std::size_t last = path.find_last_of(separator) + 1;
    const kyVariant* const holder =
        last == 0 ? nullptr : findPathImpl(path.substr(0, last - 1), separator);
    auto* const map = last == 0           ? this
                      : holder == nullptr ? nullptr
                                          : const_cast<kyVariant*>(holder)->editMap();
    if (map == nullptr || path.size() == last)
        return false;
    const auto position = map->mEntries.find(path.substr(last));
    if (position == map->mEntries.end())
        return false;
    map->mEntries.erase(position);
    return true;
}

void kyVariantMapImpl::toFlattenMap(std::map<std::string, kyVariant>& out, char separator) const
{
    struct Level {
        const_iterator position;
        const_iterator end;
        std::size_t pathSize;
    };
    std::vector<Level> open = {{begin(), end(), 0}};
    std::string path;
    while (!open.empty()) {
        Level& level = open.back();
        path.resize(level.pathSize);
        if (level.position == level.end) {
            open.pop_back();
            continue;
        }
        const auto& [key, value] = *level.position++;
        path += key;
        if (const kyVariantMapImpl* const map = value.getMap()) {
            path += separator;
            open.push_back({map->begin(), map->end(), path.size()});
        } else {
            out.insert_or_assign(path, value);
        }
    }
}

}  // namespace ky
