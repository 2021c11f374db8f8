// palomir-preview FILE.json [--out DIR] [--size WxH]
// Renders the notes screen, the lockdown screen and the banner of the worst
// service of a configuration document to PNG files, in light and dark.

#include <QtCore/QCommandLineParser>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>
#include <QtGui/QGuiApplication>

#include <iostream>

#include "palomir/qt/application.hpp"
#include "render.hpp"

int main(int argc, char** argv) {
    palomir::preview::prepareEnvironment();
    QGuiApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("palomir-preview"));
    palomir::qt::install(app);

    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral(
        "Renders the screens of a Palomir configuration document to PNG files. The notes screen shows the "
        "lockdown's notes, or the document's own notes when the lockdown has none."));
    parser.addHelpOption();
    parser.addPositionalArgument(QStringLiteral("file"), QStringLiteral("The configuration document (JSON)."));
    QCommandLineOption out(QStringList{QStringLiteral("o"), QStringLiteral("out")},
                           QStringLiteral("Directory for the PNG files."), QStringLiteral("dir"), QStringLiteral("."));
    QCommandLineOption size(QStringLiteral("size"), QStringLiteral("Window size in points."), QStringLiteral("WxH"),
                            QStringLiteral("390x844"));
    parser.addOption(out);
    parser.addOption(size);
    parser.process(app);
    if (parser.positionalArguments().size() != 1) parser.showHelp(2);

    const QString path = parser.positionalArguments().first();
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        std::cerr << "palomir-preview: cannot read " << path.toStdString() << std::endl;
        return 1;
    }
    const QByteArray text = file.readAll();
    auto decoded = palomir::decodeJson<palomir::Configuration>(std::string_view(text.constData(), text.size()));
    if (!decoded.hasValue()) {
        std::cerr << "palomir-preview: " << path.toStdString() << " is no configuration: "
                  << decoded.error().message() << std::endl;
        return 1;
    }

    palomir::preview::RenderOptions options;
    const auto dimensions = parser.value(size).split(QLatin1Char('x'));
    if (dimensions.size() == 2 && dimensions[0].toInt() > 0 && dimensions[1].toInt() > 0) {
        options.size = QSize(dimensions[0].toInt(), dimensions[1].toInt());
    }
    const QString prefix = QFileInfo(path).completeBaseName();
    int status = 0;
    for (auto appearance : {palomir::preview::Appearance::light, palomir::preview::Appearance::dark}) {
        QString error;
        const auto written =
            palomir::preview::renderConfiguration(decoded.value(), parser.value(out), prefix, appearance, options, &error);
        for (const auto& name : written) std::cout << name.toStdString() << std::endl;
        if (!error.isEmpty()) {
            std::cerr << "palomir-preview: " << error.toStdString() << std::endl;
            status = 1;
        }
    }
    return status;
}
