// palomir-preview FILE.json [--out DIR] [--size WxH]
// palomir-preview --stress DIR [--out DIR]
// Renders the notes screen, the lockdown screen and the banner of the worst
// service of a configuration document to PNG files, in light and dark.

#include <QtCore/QCommandLineParser>
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
    QCommandLineOption stress(QStringLiteral("stress"),
                              QStringLiteral("Render every document in dir at 320x568 and 844x390 instead (long and "
                                             "right-to-left texts, small and landscape windows)."),
                              QStringLiteral("dir"));
    parser.addOption(out);
    parser.addOption(size);
    parser.addOption(stress);
    parser.process(app);
    if (parser.positionalArguments().size() != (parser.isSet(stress) ? 0 : 1)) parser.showHelp(2);

    int status = 0;
    const auto render = [&](const QString& path, const QString& prefix, palomir::preview::Appearance appearance,
                            const palomir::preview::RenderOptions& options) {
        QString error;
        const auto configuration = palomir::preview::readDocument(path, &error);
        if (configuration) {
            const auto written = palomir::preview::renderConfiguration(*configuration, parser.value(out), prefix,
                                                                       appearance, options, &error);
            for (const auto& name : written) std::cout << name.toStdString() << std::endl;
        }
        if (!error.isEmpty()) {
            std::cerr << "palomir-preview: " << error.toStdString() << std::endl;
            status = 1;
        }
    };
    if (parser.isSet(stress)) {
        const auto cases = palomir::preview::stressSet(parser.value(stress));
        if (cases.isEmpty()) {
            std::cerr << "palomir-preview: no documents in " << parser.value(stress).toStdString() << std::endl;
            return 1;
        }
        for (const auto& c : cases) render(c.document, c.prefix, c.appearance, c.options);
        return status;
    }

    palomir::preview::RenderOptions options;
    const auto dimensions = parser.value(size).split(QLatin1Char('x'));
    if (dimensions.size() == 2 && dimensions[0].toInt() > 0 && dimensions[1].toInt() > 0) {
        options.size = QSize(dimensions[0].toInt(), dimensions[1].toInt());
    }
    const QString path = parser.positionalArguments().first();
    for (auto appearance : {palomir::preview::Appearance::light, palomir::preview::Appearance::dark}) {
        render(path, QFileInfo(path).completeBaseName(), appearance, options);
    }
    return status;
}
