#include "layout.hpp"

#include <QtCore/QCoreApplication>
#include <QtCore/QHash>
#include <QtCore/QMetaProperty>
#include <QtNetwork/QNetworkAccessManager>
#include <QtNetwork/QNetworkReply>
#include <QtNetwork/QNetworkRequest>
#include <QtQml/QQmlComponent>
#include <QtQml/QQmlEngine>
#include <QtQml/QQmlProperty>
#include <QtQuick/QQuickImageProvider>

#include <atomic>
#include <cstdio>
#include <iostream>
#include <mutex>

#include "palomir/bundle.hpp"
#include "palomir/qt/application.hpp"

namespace palomir::qt {
namespace detail {
namespace {

constexpr auto kProviderName = "palomir";

// Serves the bundle's images (looked up anew each time, so an override
// directory is honoured) and the images downloaded for notes.
class ImageProvider final : public QQuickImageProvider {
public:
    ImageProvider() : QQuickImageProvider(QQuickImageProvider::Image) {}

    QImage requestImage(const QString& id, QSize* size, const QSize& requestedSize) override {
        QImage image;
        if (id.startsWith(QLatin1String("bundle/")) || id.startsWith(QLatin1String("bundle-rotated/"))) {
            const bool rotated = id.startsWith(QLatin1String("bundle-rotated/"));
            const auto resource = id.mid(id.indexOf(QLatin1Char('/')) + 1).toStdString();
            if (auto data = Bundle::palomir().resourceData(resource)) {
                image.loadFromData(reinterpret_cast<const uchar*>(data->data()), static_cast<int>(data->size()));
                if (rotated && !image.isNull()) image = image.mirrored(true, true);
            }
        } else if (id.startsWith(QLatin1String("stored/"))) {
            std::lock_guard lock(_mutex);
            image = _stored.value(id.mid(7));
        }
        if (size) *size = image.size();
        if (!image.isNull() && requestedSize.isValid() && requestedSize != image.size()) {
            image = image.scaled(requestedSize, Qt::KeepAspectRatio, Qt::SmoothTransformation);
        }
        return image;
    }

    QString store(const QImage& image) {
        const auto key = QString::number(++_next);
        std::lock_guard lock(_mutex);
        _stored.insert(key, image);
        return key;
    }

    void release(const QString& key) {
        std::lock_guard lock(_mutex);
        _stored.remove(key);
    }

private:
    std::mutex _mutex;
    QHash<QString, QImage> _stored;
    std::atomic<quint64> _next{0};
};

ImageProvider* gProvider = nullptr;

QQuickItem* build(QQmlComponent& component, QObject* owner, const QString& what) {
    if (component.isError()) {
        std::cerr << "palomir: layout " << what.toStdString() << " does not load: "
                  << component.errorString().toStdString() << std::endl;
        return nullptr;
    }
    QObject* object = component.create();
    auto* item = qobject_cast<QQuickItem*>(object);
    if (!item) {
        if (object) delete object;
        std::cerr << "palomir: layout " << what.toStdString() << " has no item at its root "
                  << component.errorString().toStdString() << std::endl;
        return nullptr;
    }
    QQmlEngine::setObjectOwnership(item, QQmlEngine::CppOwnership);
    item->setParent(owner);
    return item;
}

QNetworkAccessManager& network() {
    static QPointer<QNetworkAccessManager> manager;
    if (!manager) manager = new QNetworkAccessManager(QCoreApplication::instance());
    return *manager;
}

}  // namespace

QQuickItem* loadLayout(const QString& name, QObject* owner) {
    const auto resource = "layouts/" + name.toStdString() + ".qml";
    const auto bundle = Bundle::palomir();
    const auto text = bundle.resourceText(resource);
    if (!text) {
        std::cerr << "palomir: no layout " << resource << " in the Palomir bundle" << std::endl;
        return nullptr;
    }
    // The URL only names the layout in messages and anchors relative
    // references; the text itself comes from the bundle.
    QUrl url;
    if (auto file = bundle.resourceFile(resource)) {
        url = QUrl::fromLocalFile(QString::fromStdString(file->string()));
    } else {
        url = QUrl::fromLocalFile(QStringLiteral("/palomir-bundle/") + QString::fromStdString(resource));
    }
    QQmlComponent component(&layoutEngine());
    component.setData(QByteArray::fromStdString(*text), url);
    return build(component, owner, name);
}

QQuickItem* createItem(const QByteArray& source, QObject* owner) {
    QQmlComponent component(&layoutEngine());
    component.setData(source, QUrl::fromLocalFile(QStringLiteral("/palomir-bundle/internal.qml")));
    return build(component, owner, QStringLiteral("(internal)"));
}

QQuickItem* outlet(QQuickItem* root, std::initializer_list<const char*> names) {
    if (!root) return nullptr;
    for (const char* name : names) {
        const auto objectName = QString::fromLatin1(name);
        if (root->objectName() == objectName) return root;
        if (auto* found = root->findChild<QQuickItem*>(objectName)) return found;
    }
    return nullptr;
}

void missingOutlet(const char* screen, const char* name) {
    qFatal("%s: the layout has no item with objectName \"%s\"", screen, name);
}

QColor toQColor(const Color& color) {
    return QColor::fromRgbF(static_cast<float>(color.red), static_cast<float>(color.green),
                            static_cast<float>(color.blue), static_cast<float>(color.alpha));
}

QString toQString(const std::string& text) { return QString::fromStdString(text); }
QString toQString(const std::optional<std::string>& text) { return text ? toQString(*text) : QString(); }

void write(QObject* object, const char* name, const QVariant& value) {
    if (!object) return;
    QQmlProperty property(object, QString::fromLatin1(name));
    if (property.isValid()) {
        property.write(value);
    } else {
        object->setProperty(name, value);
    }
}

QUrl bundleImageUrl(const QString& resource, bool rotated) {
    return QUrl(QStringLiteral("image://%1/%2/%3")
                    .arg(QLatin1String(kProviderName), rotated ? QStringLiteral("bundle-rotated") : QStringLiteral("bundle"),
                         resource));
}

QString storeImage(const QImage& image) {
    layoutEngine();
    return gProvider ? gProvider->store(image) : QString();
}

QUrl storedImageUrl(const QString& key) {
    return QUrl(QStringLiteral("image://%1/stored/%2").arg(QLatin1String(kProviderName), key));
}

void releaseImage(const QString& key) {
    if (gProvider && !key.isEmpty()) gProvider->release(key);
}

void fetchImage(const Url& url, QObject* context, std::function<void(QImage)> done) {
    QNetworkRequest request(QUrl(QString::fromStdString(url.absoluteString())));
    request.setAttribute(QNetworkRequest::CacheLoadControlAttribute, QNetworkRequest::AlwaysNetwork);
    request.setAttribute(QNetworkRequest::CacheSaveControlAttribute, false);
    QNetworkReply* reply = network().get(request);
    QObject::connect(reply, &QNetworkReply::finished, reply,
                     [reply, watched = QPointer<QObject>(context), watching = context != nullptr,
                      done = std::move(done)] {
                         reply->deleteLater();
                         if (reply->error() != QNetworkReply::NoError) {
                             std::cout << "Error while loading note image: " << reply->errorString().toStdString()
                                       << std::endl;
                             return;
                         }
                         if (watching && !watched) return;
                         QImage image;
                         image.loadFromData(reply->readAll());
                         done(image);
                     });
}

}  // namespace detail

QQmlEngine& layoutEngine() {
    static QPointer<QQmlEngine> engine;
    if (!engine) {
        engine = new QQmlEngine(QCoreApplication::instance());
        // The engine takes ownership of the provider.
        detail::gProvider = new detail::ImageProvider;
        engine->addImageProvider(QLatin1String(detail::kProviderName), detail::gProvider);
    }
    return *engine;
}

}  // namespace palomir::qt
