#include "startup.h"

#include "crashreporting.h"
#include "logfile.h"
#include "mainwindow.h"

#include <QApplication>
#include <QDebug>

extern "C" {
#include <libavformat/avformat.h>
}

namespace {

const char* const applicationStyleSheet =
    "DrawingForm {background-image:url(:/icons/bkg.png);}"
    "MainLabel {border-image:url(:/icons/Brindlewave.png) 0 0 0 0 stretch stretch;}"
    "QMessageBox QLabel, QMessageBox QPushButton {font-size:15px;color:white;}";

} // namespace

const char* applicationStyleSheetText() {
    return applicationStyleSheet;
}

void logMediaLibrary(unsigned version, const char* configuration) {
    QMessageLogger().debug() << " LIBAV VERSION: " << (version >> 16) << "."
                             << ((version >> 8) & 0xFF);
    QMessageLogger().debug() << "FFMPEG CONFIGURATION: " << configuration;
}

int runClient(int argc, char** argv) {
    QApplication application(argc, argv);
    installCrashReporting();
    openLogFile("brindle_client");
    application.setStyleSheet(applicationStyleSheet);
    logMediaLibrary(avformat_version(), avformat_configuration());
    MainWindow window;
    return application.exec();
}
