#include "qt_test_support.h"

#include <gtest/gtest.h>

#include <QApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QTest>
#include <cstdlib>
#include <memory>

namespace tovrel::qttest {
namespace {

/// One QApplication for the whole test binary, made before any test runs, on the main thread. The
/// offscreen platform and the web engine's sandbox settings are set here unless the caller set them.
class QtEnvironment final : public ::testing::Environment {
  public:
    void SetUp() override {
        setenv("QT_QPA_PLATFORM", "offscreen", 0);
        setenv("QTWEBENGINE_DISABLE_SANDBOX", "1", 0);
        setenv("QTWEBENGINE_CHROMIUM_FLAGS", "--disable-gpu --no-sandbox --disable-dev-shm-usage", 0);
        QCoreApplication::setAttribute(Qt::AA_ShareOpenGLContexts);
        application_ = std::make_unique<QApplication>(argc_, argv_);
    }
    void TearDown() override {
        QCoreApplication::processEvents();
        application_.reset();
    }

  private:
    int argc_ = 1;
    char name_[16] = "tovrel_qt_tests";
    char* argv_[2] = {name_, nullptr};
    std::unique_ptr<QApplication> application_;
};

[[maybe_unused]] const auto* const kEnvironment = ::testing::AddGlobalTestEnvironment(new QtEnvironment);

}  // namespace

bool waitFor(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
    return QTest::qWaitFor(done, static_cast<int>(timeout.count()));
}

void pump(std::chrono::milliseconds duration) {
    QTest::qWait(static_cast<int>(duration.count()));
}

QImage grabAndSave(QWidget& widget, const std::string& name) {
    const char* fromEnvironment = std::getenv("TOVREL_SCREENSHOT_DIR");
    const QString folder = fromEnvironment != nullptr ? QString::fromLocal8Bit(fromEnvironment)
                                                      : QStringLiteral(TOVREL_SCREENSHOT_DIR);
    QDir().mkpath(folder);
    const QImage image = widget.grab().toImage().convertToFormat(QImage::Format_ARGB32);
    const QString path = QDir(folder).filePath(QString::fromStdString(name) + ".png");
    EXPECT_TRUE(image.save(path)) << path.toStdString();
    return image;
}

bool near(const QColor& a, const QColor& b, int tolerance) {
    return std::abs(a.red() - b.red()) <= tolerance && std::abs(a.green() - b.green()) <= tolerance &&
           std::abs(a.blue() - b.blue()) <= tolerance;
}

int countNear(const QImage& image, const QRect& area, const QColor& color, int tolerance) {
    int count = 0;
    const QRect clipped = area.intersected(image.rect());
    for (int y = clipped.top(); y <= clipped.bottom(); ++y) {
        for (int x = clipped.left(); x <= clipped.right(); ++x) {
            if (near(image.pixelColor(x, y), color, tolerance)) {
                ++count;
            }
        }
    }
    return count;
}

}  // namespace tovrel::qttest
