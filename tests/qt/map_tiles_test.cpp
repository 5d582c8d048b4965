#include <gtest/gtest.h>

#include <QDir>
#include <QImage>
#include <cstdlib>
#include <filesystem>

#include "qt_test_support.h"
#include "tovrel/qt/qt_main_loop.h"
#include "tovrel/qt/qt_map_view.h"
#include "tovrel_server/server.h"

namespace tovrel::qttest {
namespace {

using namespace std::chrono_literals;
using qtbackend::QtMapView;

constexpr platform::Coordinate kMarienplatz{48.13737, 11.57546};
const QColor kTile(90, 140, 200);
const QColor kLand(236, 233, 226);

/// A map whose tiles come from an embedded tovrel-server on 127.0.0.1 serving one tile image.
class MapTilesTest : public ::testing::Test {
  protected:
    void SetUp() override {
        std::string pattern = (std::filesystem::temp_directory_path() / "tovrel-tiles-XXXXXX").string();
        ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
        directory_ = pattern;
        std::filesystem::create_directories(directory_ / "media");
        QImage tile(256, 256, QImage::Format_RGB32);
        tile.fill(kTile);
        ASSERT_TRUE(tile.save(QString::fromStdString((directory_ / "media" / "tile.png").string())));

        tovrel::server::ServerOptions options;
        options.contentDir = directory_.string();
        options.threads = 1;
        server_ = std::make_unique<tovrel::server::Server>(options);
        baseURL_ = "http://127.0.0.1:" + std::to_string(server_->start());
    }
    void TearDown() override {
        if (views_) {
            views_->window()->hide();
        }
        map_.reset();
        views_.reset();
        server_->stop();
        std::error_code ignored;
        std::filesystem::remove_all(directory_, ignored);
    }

    void showMap(const std::string& tilePath) {
        qtbackend::QtViewSystem::Options options;
        options.tileURLTemplate = baseURL_ + tilePath + "?z={z}&x={x}&y={y}";
        views_ = std::make_shared<qtbackend::QtViewSystem>(loop_, options);
        map_ = std::static_pointer_cast<QtMapView>(views_->makeMapView(views_->mainScreenBounds()));
        views_->keyWindow()->addSubview(map_);
        map_->setRegion({kMarienplatz, {0.01, 0.01}}, false);
        views_->window()->show();
    }
    QImage grab() const { return views_->window()->grab().toImage(); }

    std::filesystem::path directory_;
    std::unique_ptr<tovrel::server::Server> server_;
    std::string baseURL_;
    std::shared_ptr<qtbackend::QtMainLoop> loop_ = std::make_shared<qtbackend::QtMainLoop>();
    std::shared_ptr<qtbackend::QtViewSystem> views_;
    std::shared_ptr<QtMapView> map_;
};

TEST_F(MapTilesTest, TilesFromTheTemplateCoverTheMapAndAreFetchedOnce) {
    showMap("/media/tile.png");
    const QRect all(0, 0, 375, 667);
    ASSERT_TRUE(
        waitFor([&] { return countNear(grab(), all, kTile, 2) > all.width() * all.height() * 9 / 10; }, 10s))
        << map_->tileRequests() << " tile requests";
    const int requests = map_->tileRequests();
    // A screen of 375 × 667 points needs a handful of 256-point tiles, each asked for once.
    EXPECT_GE(requests, 2);
    EXPECT_LE(requests, 12);
    for (int i = 0; i < 5; ++i) {
        map_->widget()->repaint();
        pump(20ms);
    }
    EXPECT_EQ(map_->tileRequests(), requests) << "a cached tile was fetched again";
    grabAndSave(*views_->window(), "map_tiles");
}

TEST_F(MapTilesTest, AMissingTileIsNotAskedForOnEveryRepaintAndTheGridShows) {
    showMap("/media/no-such-tile.png");
    ASSERT_TRUE(waitFor([&] { return map_->tileRequests() > 0; }, 5s));
    pump(500ms);
    const int requests = map_->tileRequests();
    for (int i = 0; i < 5; ++i) {
        map_->widget()->repaint();
        pump(20ms);
    }
    EXPECT_EQ(map_->tileRequests(), requests);
    const QImage image = grab();
    EXPECT_GT(countNear(image, image.rect(), kLand, 2), image.width() * image.height() / 2);
    EXPECT_EQ(countNear(image, image.rect(), kTile, 2), 0);
}

}  // namespace
}  // namespace tovrel::qttest
