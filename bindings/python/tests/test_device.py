"""The Python package against tovrel-server on 127.0.0.1: arguments, a session, a replayed visit, the
notifications seen from Python, requests as futures, and the caller's own loop."""

import threading

import pytest

import tovrel
from conftest import SDK_KEY, wait_until


def test_version_and_bad_arguments_are_errors_not_crashes(tmp_path):
    assert tovrel.__version__ == tovrel.version()
    assert [int(part) for part in tovrel.__version__.split(".")] >= [1, 2, 4]

    cases = [dict(service_url="ftp://127.0.0.1"), dict(gpsd="127.0.0.1:99999"),
             dict(replay=tmp_path / "walk.gpx", speed=0), dict(application_id="../up"),
             dict(application_id="app\0cut short"), dict(service_url="http://127.0.0.1\0.evil")]
    for arguments in cases:
        with pytest.raises(tovrel.TovrelError) as refused:
            tovrel.Device(data_directory=tmp_path, **arguments)
        assert refused.value.status == tovrel.Status.INVALID_ARGUMENT, arguments

    with pytest.raises(tovrel.TovrelError) as missing:
        tovrel.Device(data_directory=tmp_path, replay=tmp_path / "absent.gpx")
    assert missing.value.status == tovrel.Status.SYSTEM
    assert "absent.gpx" in str(missing.value)


def test_one_device_a_folder_and_nothing_after_close(tmp_path):
    device = tovrel.Device(data_directory=tmp_path / "one")
    with pytest.raises(tovrel.TovrelError) as same:
        tovrel.Device(data_directory=tmp_path / "two" / ".." / "one")
    assert same.value.status == tovrel.Status.STATE
    with tovrel.Device(data_directory=tmp_path / "two") as beside:
        assert beside.session_key is None
    with pytest.raises(tovrel.TovrelError) as deep:
        device.forward_notification("[" * 100 + "]" * 100)
    assert "nested deeper than 64" in str(deep.value)
    with pytest.raises(tovrel.TovrelError):
        device.forward_notification({"alertBody": 7})
    with pytest.raises(tovrel.TovrelError):
        device.run()  # the library's thread runs this loop
    device.close()
    device.close()
    with pytest.raises(ValueError):
        device.start_session(SDK_KEY)
    with tovrel.Device(data_directory=tmp_path / "one") as again:
        assert again.session_key is None


def test_a_replayed_visit_links_acknowledges_and_is_seen_from_python(service, walk, tmp_path):
    lines = []
    with tovrel.Device(service.url, data_directory=tmp_path, application_id="org.tovrel.python-test",
                       replay=walk, speed=20, log=lines.append) as device:
        stream = device.notifications(timeout=30)
        locations = device.notifications("tovrelLocationNotification", timeout=30)
        device.present_notifications = True
        device.present_offer_view = True
        device.active = False

        before = device.clear_events()
        with pytest.raises(tovrel.TovrelError, match="session"):
            before.result(timeout=20)

        device.start_session(SDK_KEY)
        assert wait_until(lambda: device.session_key, 20)
        def linked_and_acknowledged():
            offer = service.offer(9401)
            return offer.get("links") == 1 and offer.get("ack") == 1

        assert wait_until(linked_and_acknowledged, 60), service.report()

        first = locations.get(timeout=10)
        assert first.name == "tovrelLocationNotification"
        assert set(first.object["Location"]) >= {"latitude", "longitude"}
        names = set()
        while True:
            try:
                names.add(stream.get(timeout=0.5).name)
            except Exception:
                break
        assert "tovrelLocationNotification" in names
        stream.close()
        locations.close()

        assert device.add_tag("colour", "green", "test").result(timeout=20) is not None
        assert device.delete_tag("colour", "test").result(timeout=20) is not None
        assert device.clear_events().result(timeout=20) is not None
    assert any("Inside the target bounds!" in line for line in lines)


def test_the_callers_loop_runs_callbacks_on_the_callers_thread(service, tmp_path):
    with tovrel.Device(service.url, data_directory=tmp_path, own_thread=False) as device:
        threads = set()
        device.observe(lambda notification: threads.add(threading.get_ident()))
        device.start_session(SDK_KEY, use_location=False)
        assert wait_until(lambda: device.session_key, 20, step=lambda: device.step(0.1))
        device.active = False
        device.active = True
        device.step(0)
        assert threads == {threading.get_ident()}

        # run() returns when another thread asks it to stop.
        stopper = threading.Timer(0.3, device.stop)
        stopper.start()
        device.run()
        stopper.join()
        # The key is read on the loop's thread: another thread is told so while this one holds the loop.
        errors = []

        def ask():
            try:
                device.session_key
            except tovrel.TovrelError as error:
                errors.append(error.status)

        worker = threading.Thread(target=ask)
        worker.start()
        worker.join()
        assert errors == [tovrel.Status.WRONG_THREAD]
