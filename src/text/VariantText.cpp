#include "ky/kyVariant.h"

#include "text/ScalarText.h"

namespace ky {

/// Text under way: the maps and lists that are begun and not yet ended.
class kyVariant::Printing {
public:
    static std::string Print(const kyVariant& value)
    {
        Printing printing;
        printing.begin(value);
        while (!printing.mOpen.empty())
            printing.goOn();
        return std::move(printing.mText);
    }

private:
    struct Level {
        const kyVariantListImpl* list = nullptr;  // null for a map
        std::size_t index = 0;
        kyVariantMapImpl::const_iterator position = {};
        kyVariantMapImpl::const_iterator end = {};
    };

    void begin(const kyVariant& value)
    {
        if (const kyVariantMapImpl* const map = value.getMap()) {
            mText += '{';
            mOpen.push_back({nullptr, 0, map->begin(), map->end()});
        } else if (const kyVariantListImpl* const list = value.getList()) {
            mText += '[';
            mOpen.push_back({list});
        } else if (const std::string* const text = value.getString()) {
            quote(*text);
        } else {
            mText += value.getType() == Null ? "null" : value.toString();
        }
    }

    void goOn()
    {
        Level& level = mOpen.back();
        const bool isMap = level.list == nullptr;
        if (isMap ? level.position == level.end : level.index == level.list->size()) {
            mText += isMap ? '}' : ']';
            mOpen.pop_back();
            return;
        }
        if (level.index++ > 0)
            mText += ", ";
        if (!isMap)
            return begin((*level.list)[level.index - 1]);
        const auto& [key, value] = *level.position++;
        mText.append(key).append(": ");
        begin(value);
    }

    void quote(const std::string& text)
    {
        mText += '"';
        for (const char c : text) {
            if (c == '"' || c == '\\')
                mText += '\\';
            mText += c;
        }
        mText += '"';
    }

    std::string mText;
    std::vector<Level> mOpen;
};

namespace {

void AppendRow(std::string& out, const std::vector<double>& values, std::size_t begin,
               std::size_t end)
{
    out += '[';
    for (std::size_t i = begin; i < end; ++i) {
        if (i > begin)
            out += ", ";
        impl::AppendReal(out, values[i]);
    }
    out += ']';
}

std::string MatrixText(const kyVariant::kyRealMatrix& matrix)
{
    std::string text = "[";
    // A client may have given it fewer numbers than its size says.
    for (std::size_t row = 0; row < matrix.rows; ++row) {
        const std::size_t begin = row * matrix.columns;
        if (begin > matrix.values.size())
            break;
        if (row > 0)
            text += ", ";
        AppendRow(text, matrix.values, begin,
                  std::min(begin + matrix.columns, matrix.values.size()));
    }
    return text + ']';
}

}  // namespace

std::string kyVariant::toString() const
{
    std::string text;
    switch (getType()) {
        case Null:
            return text;
        case Bool:
            return std::get<Bool>(mValue) ? "true" : "false";
        case Integer:
            impl::AppendInteger(text, std::get<Integer>(mValue));
            return text;
        case Real:
            impl::AppendReal(text, std::get<Real>(mValue));
            return text;
        case String:
            return *getString();
        case RealVector:
            AppendRow(text, *getRealVector(), 0, getRealVector()->size());
            return text;
        case RealMatrix:
            return MatrixText(*getRealMatrix());
        default:
            return Printing::Print(*this);
    }
}

}  // namespace ky
