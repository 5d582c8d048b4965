#pragma once

#include <cstdio>
#include <string>
#include <vector>

namespace tovrel::linuxbackend::test {

/// "$<body>*<checksum>\r\n".
inline std::string nmeaSentence(const std::string& body) {
    unsigned sum = 0;
    for (const char c : body) {
        sum ^= static_cast<unsigned char>(c);
    }
    char tail[8];
    std::snprintf(tail, sizeof tail, "*%02X\r\n", sum);
    return "$" + body + tail;
}

/// ddmm.mmmm with its hemisphere letter, as NMEA writes an angle.
inline std::string nmeaAngle(double degrees, bool latitude) {
    const char hemisphere = latitude ? (degrees < 0 ? 'S' : 'N') : (degrees < 0 ? 'W' : 'E');
    const double value = degrees < 0 ? -degrees : degrees;
    const int whole = static_cast<int>(value);
    char text[32];
    std::snprintf(text, sizeof text, latitude ? "%02d%07.4f,%c" : "%03d%07.4f,%c", whole,
                  (value - whole) * 60, hemisphere);
    return text;
}

/// An RMC and a GGA sentence for one fix at second `second` of 12:00 on 1 June 2024.
inline std::string nmeaFix(double latitude, double longitude, int second, double knots = 5.0,
                           double hdop = 0.9) {
    char time[32];
    std::snprintf(time, sizeof time, "12%02d%02d.00", second / 60, second % 60);
    char speed[16];
    std::snprintf(speed, sizeof speed, "%.1f", knots);
    char dop[16];
    std::snprintf(dop, sizeof dop, "%.1f", hdop);
    return nmeaSentence("GPRMC," + std::string(time) + ",A," + nmeaAngle(latitude, true) + "," +
                        nmeaAngle(longitude, false) + "," + speed + ",0.0,010624,,,A") +
           nmeaSentence("GPGGA," + std::string(time) + "," + nmeaAngle(latitude, true) + "," +
                        nmeaAngle(longitude, false) + ",1,08," + dop + ",520.0,M,47.0,M,,");
}

/// A GPX track of `count` points going north from 48.0 N 11.0 E by `stepMetres` every `stepSeconds`.
inline std::string gpxTrack(int count, double stepMetres, int stepSeconds, const std::string& activity = {}) {
    std::string text =
        "<?xml version=\"1.0\"?>\n<gpx version=\"1.1\" creator=\"test\" "
        "xmlns=\"http://www.topografix.com/GPX/1/1\" "
        "xmlns:tv=\"urn:test\">\n<trk><trkseg>\n";
    for (int i = 0; i < count; ++i) {
        char point[512];
        const int seconds = i * stepSeconds;
        std::snprintf(
            point, sizeof point,
            "<trkpt lat=\"%.7f\" lon=\"11.0000000\"><ele>520</ele><time>2024-06-01T12:%02d:%02dZ</time>"
            "%s</trkpt>\n",
            48.0 + i * stepMetres / 111194.93, seconds / 60, seconds % 60,
            activity.empty()
                ? ""
                : ("<extensions><tv:activity>" + activity + "</tv:activity></extensions>").c_str());
        text += point;
    }
    return text + "</trkseg></trk>\n</gpx>\n";
}

}  // namespace tovrel::linuxbackend::test
