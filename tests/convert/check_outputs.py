#!/usr/bin/env python3
"""Reads calendars and cards back with Python's icalendar and vobject.

  check_outputs.py DIR                      every .ics and .vcf in DIR must parse
  check_outputs.py --tool TNEF --source SRC the tool's calendars for the shared corpus's
                                            meetings, reply and task hold the facts their own
                                            properties state (exit 77: no corpus)
"""
import datetime as dt
import email
import os
import subprocess
import sys
import tempfile

import icalendar
import vobject


def check_ics(data):
    cal = icalendar.Calendar.from_ical(data)
    events = [c for c in cal.walk() if c.name in ("VEVENT", "VTODO")]
    assert events, "no VEVENT or VTODO"
    for ev in events:
        for key in ("DTSTART", "DTEND", "DUE", "RECURRENCE-ID"):
            if key in ev:
                ev.decoded(key)
    # vobject expands each series with its VTIMEZONE: the first instances must come out.
    for comp in vobject.readComponents(data.decode("utf-8")):
        for ev in getattr(comp, "vevent_list", []):
            if hasattr(ev, "rrule"):
                rs = ev.getrruleset(addRDate=True)
                assert list(rs[:3]), "a series without instances"
    return cal


def check_vcf(data):
    card = vobject.readOne(data.decode("utf-8"))
    assert card.version.value == "4.0"
    assert hasattr(card, "fn")
    return card


def check_dir(folder):
    passed = failed = 0
    for name in sorted(os.listdir(folder)):
        path = os.path.join(folder, name)
        check = {".ics": check_ics, ".vcf": check_vcf}.get(os.path.splitext(name)[1])
        if not check:
            continue
        try:
            check(open(path, "rb").read())
            passed += 1
        except Exception as e:  # noqa: BLE001 - any failure to read is the finding
            print(f"{name}: {e!r}")
            failed += 1
    print(f"{passed} passed, {failed} failed")
    return failed == 0 and passed > 0


def winmail_of(eml):
    msg = email.message_from_bytes(open(eml, "rb").read())
    for part in msg.walk():
        if part.get_content_type() == "application/ms-tnef":
            return part.get_payload(decode=True)
    raise AssertionError("no winmail.dat part")


def calendar_of(tool, path, tmp):
    out = os.path.join(tmp, os.path.basename(path) + ".ics")
    subprocess.run([tool, "calendar", path, "-o", out], check=True, stderr=subprocess.DEVNULL)
    return open(out, "rb").read()


UTC = dt.timezone.utc


def addr(v):
    return str(v).lower().removeprefix("mailto:")


def check_corpus(tool, source):
    corpus = os.environ.get("TNEF_CORPUS", os.path.join(source, "..", "shared", "corpus"))
    files = os.path.join(corpus, "content", "files")
    if not os.path.isdir(files):
        print("no shared corpus beside this checkout (set TNEF_CORPUS): skipped")
        sys.exit(77)
    passed = failed = 0
    with tempfile.TemporaryDirectory() as tmp:
        reply = os.path.join(tmp, "reply.dat")
        open(reply, "wb").write(winmail_of(os.path.join(files, "horde__Itip_Reply.eml")))

        def request(cal):
            ev = cal.walk("VEVENT")[0]
            assert cal["METHOD"] == "REQUEST"
            # PidLidAppointmentStartWhole / EndWhole, in UTC.
            assert ev.decoded("DTSTART").astimezone(UTC) == dt.datetime(2015, 1, 28, 13, 0, tzinfo=UTC)
            assert ev.decoded("DTEND").astimezone(UTC) == dt.datetime(2015, 1, 28, 13, 30, tzinfo=UTC)
            assert str(ev["LOCATION"]) == "Clayton, NJ"
            assert str(ev["SUMMARY"]) == "Test Meeting"
            assert str(ev["DESCRIPTION"]).startswith("This is a test meeting.")
            assert addr(ev["ORGANIZER"]) == "mike@theupstairsroom.com"
            att = ev["ATTENDEE"]
            assert addr(att) == "mrubinsk@horde.org"
            assert att.params["ROLE"] == "REQ-PARTICIPANT" and att.params["PARTSTAT"] == "NEEDS-ACTION"
            assert att.params["RSVP"] == "TRUE"
            assert "RRULE" not in ev  # PidLidRecurring = 0
            # The zone of PidLidTimeZoneDescription "(UTC-05:00) Eastern Time (US & Canada)".
            assert ev["DTSTART"].params["TZID"] == "Eastern Standard Time"
            assert ev.decoded("DTSTART").utcoffset().total_seconds() == -5 * 3600
            # The global object id as other clients write it (ytnef prints the same).
            assert ev["UID"] == ("040000008200E00074C5B7101A82E0080000000070D004D7863AD001"
                                 "00000000000000001000000000CC90FBB0AF5E4084B8519538A2DF6D")
            assert ev["X-MICROSOFT-CDO-BUSYSTATUS"] == "TENTATIVE"  # PidLidBusyStatus = 1

        def reply_facts(cal):
            ev = cal.walk("VEVENT")[0]
            assert cal["METHOD"] == "REPLY"
            # The meeting's topic (Horde's expectation), not the reply's prefixed subject.
            assert str(ev["SUMMARY"]) == 'Infoveranstaltung VDI/VDE Jena "Digitalisierung Medizintechnik"'
            assert ev.decoded("DTSTART").astimezone(UTC) == dt.datetime(2015, 2, 11, 23, 0, tzinfo=UTC)
            assert ev.decoded("DTEND").astimezone(UTC) == dt.datetime(2015, 2, 12, 23, 0, tzinfo=UTC)
            # The reply's sender (PR_SENT_REPRESENTING_*) is the attendee who accepted.
            att = ev["ATTENDEE"]
            assert addr(att) == "j.meier@medizin.uni-leipzig.de"
            assert att.params["PARTSTAT"] == "ACCEPTED" and att.params["ROLE"] == "REQ-PARTICIPANT"
            assert att.params["CN"] == "Meier, Jens"
            assert ev["X-MICROSOFT-CDO-BUSYSTATUS"] == "BUSY"  # PidLidBusyStatus = 2

        def task(cal):
            todo = cal.walk("VTODO")[0]
            assert str(todo["SUMMARY"]) == "Some important task."
            assert todo.decoded("DUE") == dt.date(2015, 1, 9)
            assert todo.decoded("DTSTART") == dt.date(2015, 1, 1)
            assert int(todo["PERCENT-COMPLETE"]) == 10

        checks = [
            (os.path.join(files, "horde__winmail2.dat"), request),
            (reply, reply_facts),
            (os.path.join(files, "horde__tnef_vnote.tnef"), task),
        ]
        for path, check in checks:
            try:
                check(check_ics(calendar_of(tool, path, tmp)))
                passed += 1
            except Exception as e:  # noqa: BLE001
                print(f"{os.path.basename(path)}: {e!r}")
                failed += 1
        # The distribution list of the main corpus, carried inside a note.
        out = os.path.join(tmp, "list.vcf")
        subprocess.run([tool, "contact", os.path.join(corpus, "files", "tnefparse__tests__examples__IPM-DistList.tnef"),
                        "-o", out], check=True, stderr=subprocess.DEVNULL)
        card = check_vcf(open(out, "rb").read())
        ok = card.kind.value == "group" and len(card.contents.get("member", [])) > 10
        passed, failed = passed + ok, failed + (not ok)
    print(f"{passed} passed, {failed} failed")
    return failed == 0


def main():
    if sys.argv[1] == "--tool":
        return check_corpus(sys.argv[2], sys.argv[4])
    return check_dir(sys.argv[1])


if __name__ == "__main__":
    sys.exit(0 if main() else 1)
