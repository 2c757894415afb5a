"""Shared machinery for pelvane's integration tests (Python 3 stdlib only): free ports, processes
that never outlive a test, test media generated once, running pelvane, sanitizer reports, and
readers of the relay's output.

Environment (set by ctest): PELVANE_BIN, PELVANE_CC_BIN, PELVANE_WORK (scratch dir),
PELVANE_MEDIA (generated-media cache shared by every test run and build).
"""

import atexit
import fcntl
import json
import os
import resource
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
REPO = os.path.dirname(os.path.dirname(HERE))
BIN = os.environ.get('PELVANE_BIN') or os.path.join(REPO, 'build', 'sys', 'v2', 'pelvane')
CC_BIN = os.environ.get('PELVANE_CC_BIN') or os.path.join(REPO, 'build', 'sys', 'v2', 'pelvane-cc')
MEDIA = os.environ.get('PELVANE_MEDIA') or os.path.join(REPO, 'build', 'media')
_work = os.environ.get('PELVANE_WORK')

TS_PACKET = 188
MIME_HEAD_TS = b'HTTP/1.0 200 OK\nContent-Type: video/mp2t\n\n'
MIME_HEAD_MP4 = b'HTTP/1.0 200 OK\nContent-Type: video/mp4\n\n'


def work_dir():
    """Scratch directory (a temporary one, removed at exit, when PELVANE_WORK is not set)."""
    global _work
    if not _work:
        _work = tempfile.mkdtemp(prefix='pelvane-itest-')
        atexit.register(lambda path=_work: (stop_all(), shutil.rmtree(path, ignore_errors=True)))
    os.makedirs(_work, exist_ok=True)
    return _work


def scratch(name):
    """A path in a per-process subdirectory of the scratch dir, so parallel runs never share files."""
    d = os.path.join(work_dir(), 'p%d' % os.getpid())
    os.makedirs(d, exist_ok=True)
    return os.path.join(d, name)


def _read(path, text=False):
    with open(path, 'rb') as f:
        data = f.read()
    return data.decode('utf-8', 'replace') if text else data


def write_file(path, data):
    with open(path, 'wb') as f:
        f.write(data)
    return path


def file_size(path):
    return os.path.getsize(path) if os.path.exists(path) else 0


# ---------------------------------------------------------------- ports and waiting

def free_port():
    with socket.socket() as s:
        s.bind(('127.0.0.1', 0))
        return s.getsockname()[1]


def is_listening(port):
    return 'LISTEN' in subprocess.run(['ss', '-Hltn', 'sport = :%d' % port], capture_output=True,
                                      text=True, timeout=10).stdout


def wait_for(predicate, timeout, step=0.05):
    """Poll predicate() until it is true or timeout seconds pass; returns its last value."""
    deadline = time.monotonic() + timeout
    while not (v := predicate()) and time.monotonic() < deadline:
        time.sleep(step)
    return v


def wait_listen(port, timeout=10.0, proc=None):
    """Wait until something listens on 127.0.0.1:port, asking `ss`: a connect would use up a
    single-client listener such as ffmpeg's listen=1. Gives up early when `proc` has ended."""
    wait_for(lambda: is_listening(port) or (proc is not None and not proc.running()), timeout)
    return is_listening(port)


# ---------------------------------------------------------------- processes

_live_procs = set()
_live_lock = threading.Lock()


class Proc:
    """A child in its own process group, stopped with its group on clean-up and killed by the
    kernel (setpriv --pdeathsig) if the thread that started it dies."""

    def __init__(self, argv, name=None, stdin=subprocess.DEVNULL, stdout=None, stderr=None, log_path=None, env=None):
        self.name = name or os.path.basename(argv[0])
        self.log_path = log_path
        self._log = open(log_path, 'ab') if log_path and stdout is None else None
        if self._log:
            stdout, stderr = self._log, stderr or subprocess.STDOUT
        self.popen = subprocess.Popen(['setpriv', '--pdeathsig', 'KILL', '--'] + list(argv), stdin=stdin,
                                      stdout=stdout, stderr=stderr, start_new_session=True, env=env)
        self.pid = self.popen.pid
        self.started = time.monotonic()
        with _live_lock:
            _live_procs.add(self)

    def running(self):
        return self.popen.poll() is None

    def wait(self, timeout):
        """Exit status (-N for signal N), or None when still running after timeout seconds."""
        try:
            return self.popen.wait(timeout=timeout)
        except subprocess.TimeoutExpired:
            return None

    def send(self, sig):
        if self.running():
            os.kill(self.pid, sig)

    def send_group(self, sig):
        try:
            os.killpg(self.pid, sig)
        except ProcessLookupError:
            pass

    def stop(self, grace=3.0):
        """SIGTERM (and SIGCONT, for a stopped one) to the group, then SIGKILL; returns the status."""
        if self.running():
            self.send_group(signal.SIGTERM)
            self.send_group(signal.SIGCONT)
            if self.wait(grace) is None:
                self.send_group(signal.SIGKILL)
                self.wait(5)
        for f in (self.popen.stdin, self.popen.stdout, self.popen.stderr, self._log):
            try:
                f and f.close()
            except OSError:
                pass
        with _live_lock:
            _live_procs.discard(self)
        return self.popen.returncode

    def log_text(self):
        return _read(self.log_path, True) if self.log_path and os.path.exists(self.log_path) else ''


def stop_all():
    with _live_lock:
        procs = list(_live_procs)
    for p in procs:
        p.stop()


atexit.register(stop_all)
resource.setrlimit(resource.RLIMIT_CORE, (0, 0))  # runs that end by SIGABRT are expected here


# ---------------------------------------------------------------- media

def _x264(preset='veryfast'):
    return ['-c:v', 'libx264', '-preset', preset, '-tune', 'zerolatency', '-pix_fmt', 'yuv420p',
            '-g', '25', '-keyint_min', '25', '-sc_threshold', '0', '-bf', '0']


def _video(size, src='testsrc'):
    return ['-f', 'lavfi', '-i', '%s=size=%s:rate=25' % (src, size)]


def _tone(rate=48000, freq=440):
    return ['-f', 'lavfi', '-i', 'sine=frequency=%d:sample_rate=%d' % (freq, rate)]


def text_recipe(text):
    """A recipe that writes `text` itself."""
    return lambda out: write_file(out, text.encode()) and None


SUBS_VTT = """WEBVTT

cue-1
00:00:00.500 --> 00:00:01.500 align:start line:90%
First cue

cue-2
00:00:01.800 --> 00:00:02.800 align:end position:80% size:50%
Second cue with <b>bold</b>

00:00:03.000 --> 00:00:03.900 line:10% align:center
Third cue, no identifier
"""

# name -> function(output path) returning the ffmpeg tool's arguments before the output, or None
# when it wrote the file itself. Short clips, small sizes, fast presets.
MEDIA_RECIPES = {
    'subs.vtt': text_recipe(SUBS_VTT),
    'h264_aac.mkv': lambda out: (_video('640x360') + _tone() + ['-t', '5'] + _x264()
                                 + ['-c:a', 'aac', '-b:a', '96k', '-ac', '2']),
    'h264_aac_vtt.mkv': lambda out: (['-i', media_path('h264_aac.mkv'), '-i', media_path('subs.vtt'),
                                      '-map', '0', '-map', '1', '-c', 'copy']),
    # H.264 1280x720 (0) + H.264 640x360 (1) + AAC (2) + WebVTT (3).
    'two_h264_vtt.mkv': lambda out: (_video('1280x720') + _video('640x360', 'testsrc2') + _tone()
                                     + ['-i', media_path('subs.vtt'), '-t', '3',
                                        '-map', '0:v', '-map', '1:v', '-map', '2:a', '-map', '3']
                                     + _x264('ultrafast') + ['-c:a', 'aac', '-b:a', '64k', '-c:s', 'copy']),
    # H.264 1280x720 (0) + H.264 1280x1080 (1), no audio.
    'h264_720_1080.mkv': lambda out: (_video('1280x720') + _video('1280x1080', 'testsrc2')
                                      + ['-t', '2', '-map', '0:v', '-map', '1:v'] + _x264('ultrafast')),
    # HEVC (0) + AAC (1).
    'hevc_aac.mkv': lambda out: (_video('640x360') + _tone() + ['-t', '3', '-c:v', 'libx265', '-preset',
                                 'ultrafast', '-x265-params', 'log-level=error:keyint=25',
                                 '-pix_fmt', 'yuv420p', '-c:a', 'aac', '-b:a', '64k']),
    # AAC 44.1 kHz stereo (0) + AAC 48 kHz mono (1).
    'aac_two_rates.mkv': lambda out: (_tone(44100) + _tone(48000, 880) + ['-t', '3', '-map', '0',
                                      '-map', '1', '-c:a', 'aac', '-b:a', '64k', '-ac:0', '2', '-ac:1', '1']),
    # AAC 48 kHz mono (0) + AAC 48 kHz stereo (1).
    'aac_equal_rates.mkv': lambda out: (_tone(48000) + _tone(48000, 880) + ['-t', '3', '-map', '0',
                                        '-map', '1', '-c:a', 'aac', '-b:a', '64k', '-ac:0', '1', '-ac:1', '2']),
    'vtt_only.mkv': lambda out: ['-i', media_path('subs.vtt'), '-c:s', 'copy'],
    'audio_only.mkv': lambda out: _tone() + ['-t', '4', '-c:a', 'aac', '-b:a', '96k', '-ac', '2'],
    # MPEG-2 video + MP2 in MPEG-TS: the TCP source.
    'mpeg2_mp2.ts': lambda out: (_video('640x360') + _tone() + ['-t', '5', '-c:v', 'mpeg2video',
                                 '-b:v', '1500k', '-g', '25', '-c:a', 'mp2', '-b:a', '128k']),
    # About 10 MB of MPEG-2 (noise does not compress) + MP2: a source far faster than a slow client.
    'bulk.ts': lambda out: (_video('640x360', 'testsrc2') + _tone() + ['-t', '5', '-vf',
                            'noise=alls=60:allf=t', '-c:v', 'mpeg2video', '-q:v', '10', '-g', '12',
                            '-c:a', 'mp2', '-b:a', '128k']),
}


def register_media(name, recipe):
    """Let a test file add its own generated media (same caching and locking)."""
    MEDIA_RECIPES.setdefault(name, recipe)


def media_path(name):
    """Path of generated test media `name`, generating it once (under a lock) if needed."""
    path = os.path.join(MEDIA, name)
    if os.path.exists(path):
        return path
    os.makedirs(MEDIA, exist_ok=True)
    with open(os.path.join(MEDIA, '.%s.lock' % name), 'w') as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        if not os.path.exists(path):
            tmp = os.path.join(MEDIA, '.tmp-%d-%s' % (os.getpid(), name))
            args = MEDIA_RECIPES[name](tmp)
            if args is not None:
                cmd = ['ffmpeg', '-hide_banner', '-nostdin', '-loglevel', 'error', '-y'] + args + [tmp]
                r = subprocess.run(cmd, capture_output=True, text=True, timeout=300)
                if r.returncode != 0:
                    raise RuntimeError('generating %s failed: %s\n%s' % (name, ' '.join(cmd), r.stderr))
            os.replace(tmp, path)
    return path


# ---------------------------------------------------------------- running pelvane

class Run:
    """Outcome of one pelvane run: status (-N when ended by signal N), stdout bytes, stderr text,
    seconds elapsed, arguments."""

    def __init__(self, status, stdout, stderr, elapsed, argv):
        self.status, self.stdout, self.stderr, self.elapsed, self.argv = status, stdout, stderr, elapsed, argv

    def describe(self):
        return 'pelvane %s -> status %s after %.2f s, %d bytes on stdout; stderr:\n%s' % (
            ' '.join(self.argv), self.status, self.elapsed, len(self.stdout), self.stderr[-4000:])


def run_pelvane(args, timeout=60, stdin=subprocess.DEVNULL, tag='run'):
    """Run pelvane to its end, stdout and stderr in files (no pipe can fill up). Raises
    TimeoutError (after killing it) when it is still running after timeout seconds."""
    out_path, err_path = scratch(tag + '.out'), scratch(tag + '.err')
    with open(out_path, 'wb') as out, open(err_path, 'wb') as err:
        p = Proc([BIN] + list(args), name='pelvane', stdin=stdin, stdout=out, stderr=err)
        status = p.wait(timeout)
        elapsed = time.monotonic() - p.started
        p.stop()
    run = Run(p.popen.returncode, _read(out_path), _read(err_path, text=True), elapsed, list(args))
    note_sanitizer_report(run.stderr, ' '.join(run.argv))
    if status is None:
        raise TimeoutError('still running after %d s: %s' % (timeout, run.describe()))
    return run


class Started:
    """A pelvane started in the background: proc, out_path (None when stdout was given), err_path."""

    def __init__(self, args, stdout=None, tag='live'):
        self.args, self.err_path = list(args), scratch(tag + '.err')
        watch_stderr(self.err_path, ' '.join(args))
        self.out_path = None if stdout is not None else scratch(tag + '.out')
        with open(self.err_path, 'wb') as err, open(self.out_path or os.devnull, 'wb') as out:
            self.proc = Proc([BIN] + self.args, name='pelvane', stdout=stdout or out, stderr=err)

    def stderr(self):
        return _read(self.err_path, True)

    def output_reaches(self, n, timeout):
        """Waits until n bytes have come out while it runs; True if so."""
        return wait_for(lambda: file_size(self.out_path) >= n or not self.proc.running(), timeout) and \
            self.proc.running()

    def finish(self, timeout=10, sig=None):
        """Sends sig (if any), waits, stops it; a Run whose elapsed counts from the signal."""
        t0 = time.monotonic()
        if sig is not None:
            self.proc.send(sig)
        self.proc.wait(timeout)
        elapsed = time.monotonic() - t0
        self.proc.stop()
        return Run(self.proc.popen.returncode, _read(self.out_path) if self.out_path else b'', self.stderr(),
                   elapsed, self.args)


def vm_hwm_kib(pid):
    """Peak resident set size of a live process in KiB (VmHWM), or None."""
    try:
        with open('/proc/%d/status' % pid) as f:
            return next(int(line.split()[1]) for line in f if line.startswith('VmHWM:'))
    except (OSError, StopIteration):
        return None


# ---------------------------------------------------------------- sanitizer reports

# Under AddressSanitizer/UndefinedBehaviorSanitizer a fault shows as a report on the binary's
# standard error; the exit status alone cannot tell it from a failure exit (1).
SANITIZER_MARKS = ('ERROR: AddressSanitizer', 'ERROR: LeakSanitizer', 'runtime error:')
_sanitizer_findings = []
_watched_stderr = {}  # stderr path of a started pelvane -> its arguments


def sanitizer_report(text):
    """The sanitizer report in a stderr transcript (from the line of its first mark on), or None."""
    hits = [text.find(m) for m in SANITIZER_MARKS if m in text]
    if not hits:
        return None
    start = text.rfind('\n', 0, min(hits)) + 1
    return text[start:start + 6000]


def note_sanitizer_report(text, what):
    if report := sanitizer_report(text):
        _sanitizer_findings.append('pelvane %s:\n%s' % (what, report))


def _check_watched(path):
    what = _watched_stderr.pop(path, None)
    if what is not None and os.path.exists(path):
        note_sanitizer_report(_read(path, text=True), what)


def watch_stderr(path, what):
    _check_watched(path)  # an earlier run's transcript is read before it is overwritten
    _watched_stderr[path] = what


def take_sanitizer_findings():
    for path in list(_watched_stderr):
        _check_watched(path)
    found = list(_sanitizer_findings)
    del _sanitizer_findings[:]
    return found


def _ldd():
    try:
        return subprocess.run(['ldd', BIN], capture_output=True, text=True, timeout=30).stdout
    except OSError as e:
        return 'ldd failed: %s' % e


def sanitized_build():
    return 'libasan' in _ldd()


class _SanitizerAwareResult(unittest.TextTestResult):
    """Fails a test whose pelvane runs left a sanitizer report, whatever its assertions said."""

    def startTest(self, test):
        take_sanitizer_findings()
        super().startTest(test)

    def stopTest(self, test):
        if found := take_sanitizer_findings():
            try:
                raise AssertionError('sanitizer report from the binary under test:\n' + '\n'.join(found))
            except AssertionError:
                self.addFailure(test, sys.exc_info())
        super().stopTest(test)


# ---------------------------------------------------------------- output readers

def ts_framing_problem(data, allow_partial_tail=False):
    """None when data is whole 188-byte transport packets, else what is wrong. allow_partial_tail
    accepts a cut last packet: a stop signal may end the output inside a muxer write."""
    if len(data) < TS_PACKET:
        return 'not one whole transport packet (%d bytes)' % len(data)
    if len(data) % TS_PACKET and not allow_partial_tail:
        return 'length %d is not a multiple of 188 (%d left over)' % (len(data), len(data) % TS_PACKET)
    bad = next((off for off in range(0, len(data), TS_PACKET) if data[off] != 0x47), None)
    return None if bad is None else 'byte at offset %d is 0x%02x, not the 0x47 sync byte' % (bad, data[bad])


def ffprobe_json(path, *entries):
    r = subprocess.run(['ffprobe', '-v', 'error', '-of', 'json'] + list(entries) + [path],
                       capture_output=True, text=True, timeout=120)
    if r.returncode != 0:
        raise AssertionError('ffprobe failed on %s: %s' % (path, r.stderr))
    return json.loads(r.stdout or '{}')


def ffprobe_streams(path):
    return ffprobe_json(path, '-show_streams').get('streams', [])


def ffprobe_packets(path):
    return ffprobe_json(path, '-show_entries', 'packet=stream_index,codec_type,dts,pts,flags,size').get('packets', [])


def dts_problems(packets):
    """Messages for every packet whose dts is missing or does not exceed its stream's previous one."""
    last, problems = {}, []
    for n, p in enumerate(packets):
        s, dts = p.get('stream_index'), p.get('dts')
        if dts is None:
            problems.append('packet %d of stream %s has no dts' % (n, s))
            continue
        if s in last and dts <= last[s]:
            problems.append('stream %s: dts %d after %d (packet %d)' % (s, dts, last[s], n))
        last[s] = dts
    return problems


def decode_errors(path):
    """What `ffmpeg -v error -i path -f null -` prints: empty when every packet decodes.

    `-enc_time_base -1` keeps the frames in the stream's own 90 kHz time base: by default the
    tool re-stamps video in 1/frame-rate units, and a live source's jitter (a looping
    publisher's seam) then rounds two frames onto one tick, which it reports as an error of
    its own null muxer, not of decoding, which is left out here. Time stamp order is checked
    by dts_problems."""
    r = subprocess.run(['ffmpeg', '-nostdin', '-hide_banner', '-v', 'error', '-i', path,
                        '-enc_time_base', '-1', '-f', 'null', '-'], capture_output=True, text=True, timeout=180)
    # The null muxer's own complaint about two output frames on one tick (and its
    # repeats) says nothing about decoding; dts_problems checks the order itself.
    kept, muxer_note = [], False
    for line in (r.stdout + r.stderr).splitlines():
        if 'non monotonically increasing dts to muxer' in line:
            muxer_note = True
            continue
        if muxer_note and 'Last message repeated' in line:
            continue
        muxer_note = False
        kept.append(line)
    return '\n'.join(kept).strip()


def h264_stream_head(path, n=4):
    """First n bytes of the output's H.264 elementary stream as stored (copied, not decoded)."""
    return subprocess.run(['ffmpeg', '-nostdin', '-v', 'error', '-i', path, '-map', '0:v:0', '-c', 'copy',
                           '-frames:v', '1', '-f', 'data', 'pipe:1'], capture_output=True, timeout=60).stdout[:n]


def mp4_top_boxes(data):
    """Top-level MP4 box types in order; a box that runs past the end is named with a '!' suffix."""
    boxes, off = [], 0
    while off + 8 <= len(data):
        size, kind, hdr = int.from_bytes(data[off:off + 4], 'big'), data[off + 4:off + 8].decode('latin-1'), 8
        if size == 1 and off + 16 <= len(data):
            size, hdr = int.from_bytes(data[off + 8:off + 16], 'big'), 16
        elif size == 0:
            size = len(data) - off
        if size < hdr or off + size > len(data):
            return boxes + [kind + '!']
        boxes.append(kind)
        off += size
    return boxes


class RelayChecks(unittest.TestCase):

    def assertRelayTs(self, run_or_data, codecs, head=None, allow_partial_tail=False, name='out'):
        """Checks a relayed MPEG-TS: optional exact head, whole packets, the expected codecs (as
        ffprobe names them, in any order), strictly increasing dts per stream, a key first video
        packet, and a decode without a single error. Returns the ffprobe packet list."""
        data = run_or_data.stdout if isinstance(run_or_data, Run) else run_or_data
        ctx = run_or_data.describe() if isinstance(run_or_data, Run) else ''
        if head is not None:
            self.assertEqual(data[:len(head)], head, 'response head\n' + ctx)
            data = data[len(head):]
        self.assertIsNone(ts_framing_problem(data, allow_partial_tail), ctx)
        path = write_file(scratch(name + '.ts'), data)
        self.assertEqual(sorted(s.get('codec_name') for s in ffprobe_streams(path)), sorted(codecs),
                         'streams in output\n' + ctx)
        packets = ffprobe_packets(path)
        self.assertTrue(packets, 'no packets in output\n' + ctx)
        self.assertEqual(dts_problems(packets)[:5], [], ctx)
        if {'h264', 'mpeg2video', 'mpeg1video'} & set(codecs):
            first = next(p for p in packets if p.get('codec_type') == 'video')
            self.assertTrue(first.get('flags', '').startswith('K'), 'first video packet is not key\n' + ctx)
        self.assertEqual(decode_errors(path), '', 'decoding the output\n' + ctx)
        return packets


def main():
    """Entry point of every test file: say which FFmpeg the binary uses, then run the tests."""
    avformat = [line.strip() for line in _ldd().splitlines() if 'avformat' in line]
    sys.stderr.write('pelvane under test: %s\nFFmpeg: %s\n' % (BIN, avformat[0] if avformat else 'no libavformat?'))
    sys.stderr.flush()
    try:
        unittest.main(verbosity=2, testRunner=unittest.TextTestRunner(resultclass=_SanitizerAwareResult,
                                                                      verbosity=2))
    finally:
        stop_all()
