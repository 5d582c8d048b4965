// Draws the images of "TovrelSDKResources.bundle" into the folder given on the command line: the map
// pins, the settings rows' icons (white glyphs on coloured rounded squares) and the back arrow.

#include <QDir>
#include <QFont>
#include <QGuiApplication>
#include <QImage>
#include <QImageWriter>
#include <QPainter>
#include <QPainterPath>
#include <cmath>
#include <cstdio>
#include <functional>

namespace {

constexpr int kIcon = 58;  // 29 points at twice the density
constexpr double kPi = 3.14159265358979323846;

QImage canvas(int width, int height) {
    QImage image(width, height, QImage::Format_ARGB32_Premultiplied);
    image.fill(Qt::transparent);
    return image;
}

/// A pin 32 × 40 with its tip at the bottom centre: a round head over a point, with a white centre.
QImage pin(const QColor& fill, bool check) {
    QImage image = canvas(32, 40);
    QPainter p(&image);
    p.setRenderHint(QPainter::Antialiasing);
    QPainterPath shape;
    shape.moveTo(16, 39);
    shape.cubicTo(12, 30, 3, 24, 3, 15);
    shape.arcTo(QRectF(3, 2, 26, 26), 180, -180);
    shape.cubicTo(29, 24, 20, 30, 16, 39);
    shape.closeSubpath();
    p.setPen(QPen(fill.darker(150), 1.5));
    p.setBrush(fill);
    p.drawPath(shape);
    p.setPen(Qt::NoPen);
    p.setBrush(Qt::white);
    p.drawEllipse(QPointF(16, 15), 6.5, 6.5);
    if (check) {
        p.setPen(QPen(fill.darker(120), 2.2, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
        p.setBrush(Qt::NoBrush);
        QPainterPath mark;
        mark.moveTo(12.5, 15);
        mark.lineTo(15, 17.8);
        mark.lineTo(19.8, 12);
        p.drawPath(mark);
    }
    return image;
}

/// A settings icon: a coloured rounded square and a white glyph drawn by `glyph` in a 58 × 58 box.
QImage icon(const QColor& color, const std::function<void(QPainter&)>& glyph) {
    QImage image = canvas(kIcon, kIcon);
    QPainter p(&image);
    p.setRenderHint(QPainter::Antialiasing);
    p.setPen(Qt::NoPen);
    p.setBrush(color);
    p.drawRoundedRect(QRectF(1, 1, kIcon - 2, kIcon - 2), 13, 13);
    p.setPen(QPen(Qt::white, 4, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
    p.setBrush(Qt::NoBrush);
    glyph(p);
    return image;
}

void letter(QPainter& p, const QString& text) {
    p.setPen(QPen(Qt::white, 3.5));
    p.drawEllipse(QPointF(29, 29), 18, 18);
    QFont font("DejaVu Sans");
    font.setPixelSize(26);
    font.setBold(true);
    p.setFont(font);
    p.setPen(Qt::white);
    p.drawText(QRectF(0, 0, kIcon, kIcon), Qt::AlignCenter, text);
}

void gear(QPainter& p) {
    QPainterPath teeth;
    const QPointF c(29, 29);
    for (int i = 0; i < 8; ++i) {
        const double a = i * kPi / 4;
        const QPointF d(std::cos(a), std::sin(a));
        const QPointF n(-d.y(), d.x());
        QPolygonF tooth;
        tooth << c + d * 15 + n * 4.5 << c + d * 22 + n * 3.5 << c + d * 22 - n * 3.5 << c + d * 15 - n * 4.5;
        teeth.addPolygon(tooth);
        teeth.closeSubpath();
    }
    QPainterPath ring;
    ring.addEllipse(c, 16.5, 16.5);
    QPainterPath hole;
    hole.addEllipse(c, 6.5, 6.5);
    p.setPen(Qt::NoPen);
    p.setBrush(Qt::white);
    p.drawPath(teeth.united(ring).subtracted(hole));
}

void document(QPainter& p) {
    p.setPen(QPen(Qt::white, 3.5, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
    QPainterPath page;
    page.moveTo(17, 10);
    page.lineTo(35, 10);
    page.lineTo(43, 18);
    page.lineTo(43, 48);
    page.lineTo(17, 48);
    page.closeSubpath();
    p.drawPath(page);
    for (int y : {24, 31, 38}) {
        p.drawLine(QPointF(23, y), QPointF(37, y));
    }
}

void lock(QPainter& p) {
    p.setPen(QPen(Qt::white, 4.5, Qt::SolidLine, Qt::RoundCap));
    p.drawArc(QRectF(19, 10, 20, 22), 0, 180 * 16);
    p.drawLine(QPointF(19, 21), QPointF(19, 26));
    p.drawLine(QPointF(39, 21), QPointF(39, 26));
    p.setPen(Qt::NoPen);
    p.setBrush(Qt::white);
    p.drawRoundedRect(QRectF(14, 26, 30, 22), 4, 4);
    p.setBrush(QColor(60, 60, 60));
    p.drawEllipse(QPointF(29, 35), 3, 3);
    p.drawRect(QRectF(28, 36, 2, 6));
}

void locationArrow(QPainter& p) {
    QPainterPath arrow;
    arrow.moveTo(44, 13);
    arrow.lineTo(14, 27);
    arrow.lineTo(29, 29);
    arrow.lineTo(31, 44);
    arrow.closeSubpath();
    p.setPen(QPen(Qt::white, 2, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
    p.setBrush(Qt::white);
    p.drawPath(arrow);
}

void bell(QPainter& p) {
    QPainterPath shape;
    shape.moveTo(15, 40);
    shape.cubicTo(19, 36, 19, 31, 19, 26);
    shape.cubicTo(19, 15, 24, 12, 29, 12);
    shape.cubicTo(34, 12, 39, 15, 39, 26);
    shape.cubicTo(39, 31, 39, 36, 43, 40);
    shape.closeSubpath();
    p.setPen(Qt::NoPen);
    p.setBrush(Qt::white);
    p.drawPath(shape);
    p.drawEllipse(QPointF(29, 44), 4.5, 4.5);
    p.drawEllipse(QPointF(29, 10), 2.5, 2.5);
}

/// The back arrow for a light navigation bar: a blue chevron pointing left.
QImage backArrow() {
    QImage image = canvas(56, 56);
    QPainter p(&image);
    p.setRenderHint(QPainter::Antialiasing);
    p.setPen(QPen(QColor(0, 122, 255), 6, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
    QPainterPath chevron;
    chevron.moveTo(34, 10);
    chevron.lineTo(16, 28);
    chevron.lineTo(34, 46);
    p.drawPath(chevron);
    return image;
}

bool save(const QImage& image, const QDir& folder, const QString& name, const char* format) {
    QImageWriter writer(folder.filePath(name), format);
    if (!writer.write(image)) {
        std::fprintf(stderr, "make_resources: %s: %s\n", qPrintable(folder.filePath(name)),
                     qPrintable(writer.errorString()));
        return false;
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    QGuiApplication application(argc, argv);
    if (argc != 2) {
        std::fprintf(stderr, "usage: make_resources OUTPUT_BUNDLE_DIR\n");
        return 2;
    }
    const QDir folder(QString::fromLocal8Bit(argv[1]));
    if (!QDir().mkpath(folder.path())) {
        std::fprintf(stderr, "make_resources: cannot make %s\n", argv[1]);
        return 1;
    }
    bool ok = true;
    ok &= save(pin(QColor(232, 76, 61), false), folder, "pin1.png", "png");
    ok &= save(pin(QColor(39, 174, 96), true), folder, "pin2.png", "png");
    ok &= save(icon(QColor(142, 142, 147), gear), folder, "settings.png", "png");
    ok &= save(icon(QColor(0, 122, 255), [](QPainter& p) { letter(p, "i"); }), folder, "about.png", "png");
    ok &= save(icon(QColor(88, 86, 214), document), folder, "terms.png", "png");
    ok &= save(icon(QColor(52, 170, 90), lock), folder, "privacy.png", "png");
    ok &= save(icon(QColor(255, 149, 0), [](QPainter& p) { letter(p, "?"); }), folder, "help.png", "png");
    ok &= save(icon(QColor(0, 122, 255), locationArrow), folder, "locations.png", "png");
    ok &= save(icon(QColor(255, 59, 48), bell), folder, "notifications.png", "png");
    ok &= save(backArrow(), folder, "icons_back.tiff", "tiff");
    return ok ? 0 : 1;
}
