#include "art_catalog.hpp"

#include <kestrin/ui/art.hpp>

#include <algorithm>
#include <string_view>

// Q_INIT_RESOURCE names a function at global scope, so it cannot be used inside a namespace. The
// resources sit in a static library: without this call the linker would leave them out.
static void initArtResources()
{
    Q_INIT_RESOURCE(kestrin_art);
}

namespace kestrin::ui {
namespace {

QString toQString(std::string_view text)
{
    return QString::fromLatin1(text.data(), static_cast<qsizetype>(text.size()));
}

const detail::ArtEntry* findEntry(QStringView name)
{
    const auto& catalog = detail::kArtCatalog;
    const auto* found = std::find_if(catalog.begin(), catalog.end(), [&](const auto& entry) {
        return name == toQString(entry.name);
    });
    return found != catalog.end() ? found : nullptr;
}

void ensureResources()
{
    static const bool isRegistered = [] {
        initArtResources();
        return true;
    }();
    (void)isRegistered;
}

QString resourcePath(QStringView name)
{
    return QStringLiteral(":/art/%1.png").arg(name);
}

}  // namespace

QStringList artNames()
{
    QStringList names;
    names.reserve(static_cast<qsizetype>(detail::kArtCatalog.size()));
    for (const auto& entry : detail::kArtCatalog) {
        names.append(toQString(entry.name));
    }
    return names;
}

QSizeF artSize(QStringView name)
{
    const detail::ArtEntry* entry = findEntry(name);
    return entry != nullptr ? QSizeF(entry->widthPt, entry->heightPt) : QSizeF();
}

QPixmap artPixmap(QStringView name)
{
    if (findEntry(name) == nullptr) {
        return {};
    }
    ensureResources();
    QPixmap pixmap(resourcePath(name));
    pixmap.setDevicePixelRatio(kArtDevicePixelRatio);
    return pixmap;
}

QIcon applicationIcon()
{
    ensureResources();
    return QIcon(resourcePath(toQString(detail::kIconName)));
}

}  // namespace kestrin::ui
