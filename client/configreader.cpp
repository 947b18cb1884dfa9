#include "configreader.h"

#include "logfile.h"
#include "platform/smallfile.h"

#include <QCoreApplication>
#include <QDir>
#include <algorithm>
#include <cctype>
#include <sstream>

namespace {

// A few lines of settings; anything larger is not the file the program expects.
constexpr std::size_t maxConfigBytes = 64 * 1024;
// Notepad starts its UTF-8 files with one; it is no part of the first key.
constexpr const char* byteOrderMark = "\xEF\xBB\xBF";

} // namespace

std::string ConfigReader::trim(const std::string& text) {
    const auto isSpace = [](char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; };
    const auto first = std::find_if_not(text.begin(), text.end(), isSpace);
    const auto last = std::find_if_not(text.rbegin(), text.rend(), isSpace).base();
    return first < last ? std::string(first, last) : std::string();
}

std::string ConfigReader::toLower(std::string text) {
    for (char& c : text)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

bool ConfigReader::parseLine(const std::string& line, char separator,
                             std::pair<std::string, std::string>& pair) {
    const std::string text = trim(line);
    if (text.empty() || text[0] == '#')
        return false;
    const std::size_t split = text.find(separator);
    if (split == std::string::npos)
        return false;
    std::string key = toLower(trim(text.substr(0, split)));
    std::string value = trim(text.substr(split + 1));
    if (key.empty() || value.empty())
        return false;
    pair = {std::move(key), std::move(value)};
    return true;
}

bool ConfigReader::read(std::string fileName) {
    const std::string path = QCoreApplication::applicationDirPath().toUtf8().toStdString() +
                             QDir::separator().toLatin1() + fileName;
    std::string text;
    if (!platform::readSmallFile(path, maxConfigBytes, text)) {
        logLine("fail open: ", path);
        return false;
    }
    std::istringstream file(text.compare(0, 3, byteOrderMark) == 0 ? text.substr(3) : text);

    values.clear();
    std::string line;
    std::pair<std::string, std::string> pair;
    while (std::getline(file, line)) {
        if (!parseLine(line, '=', pair))
            continue;
        logLine("[config] ", pair.first, ' ', pair.second);
        values.emplace(pair.first, pair.second);
    }
    return true;
}

QString ConfigReader::value(std::string key, std::string defaultValue) const {
    const auto found = values.find(toLower(std::move(key)));
    return QString::fromStdString(found != values.end() ? found->second : defaultValue);
}
