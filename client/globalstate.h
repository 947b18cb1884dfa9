#pragma once

#include <QString>
#include <cstdint>

class QSettings;

// Encoder settings read once from config.ini.
struct StreamConfig {
    int32_t fps = 25;
    int32_t bitrate = 1000000;
    QString codec;
    QString framesize;
    QString audio;    // the sound source: none (also when empty), default, output or its own name
    QString reserved; // nothing sets it
};

// What every part of the program may reach without holding the object that owns it.
class IGlobalState {
public:
    virtual QSettings* settings() = 0;
    virtual void changeStatus(QString text, int kind) = 0;
    virtual StreamConfig* config() = 0;
    virtual int testAndSetOnce() = 0;
    virtual void clickLive() = 0;

protected:
    ~IGlobalState() = default;
};

// Set by the main window's constructor, never cleared; null before that.
extern IGlobalState* globalState;
