#!/usr/bin/python3
"""Decode-back of the caption converters with independent decoders.

cea_dump (built beside the tests) runs WebVTTTo608/WebVTTTo708 over a set of
cues the way the relay does and writes the pairs and words as JSON and the
CC1 pairs as an SCC file. mux.js (installed from npm into a cache directory
when missing) decodes the JSON three ways: Cea608Stream, Cea708Stream and
CaptionStream fed H.264 SEI. The ffmpeg tool's EIA-608 decoder turns the SCC
file into SRT. Decoded texts, rows and times are compared with the cues.
"""
import json
import os
import random
import re
import shutil
import subprocess
import tempfile
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
DUMP = os.environ.get('PELVANE_CEA_DUMP_BIN', '')
WORK = os.path.join(os.environ.get('PELVANE_WORK', tempfile.gettempdir()), 'cea_decode')
NPM_CACHE = os.path.join(os.path.expanduser('~'), '.cache', 'pelvane-npm')
MUXJS_VERSION = '7.1.0'

# One cue per entry: times, settings string, cue text; what mux.js's 608 and
# 708 decoders should show (rows joined by newlines; 608 marks italics with
# <i>); the shown interval in ms for each (608 times are exact grid keys,
# delayed where a caption must wait for the previous erase); italic words.
CUES = [
    dict(start=1000, end=3000, settings='', text='Hello, world',
         want608='Hello, world', want708='Hello, world', t608=(1001, 3003), t708=(1001, 3003),
         line608=[15], italic=[]),
    # back to back with the first; italics, accents, specials, two rows, line 90%
    dict(start=3000, end=5000, settings='align:start line:90%',
         text='<i>Second</i> cue, two\\nlines: café ñ ü ½ ♪ “ok”',
         want608='<i>Second</i> cue, two\nlines: café ñ ü ½ ♪ “ok”',
         want708='Second cue, two\nlines: café ñ ü ½ ♪ “ok”',
         t608=(3070, 5005), t708=(3036, 4805), line608=[14, 15], italic=['Second']),
    # overlaps the second: 608 waits for its erase, 708 replaces it at once
    dict(start=4800, end=6400, settings='line:0 align:start position:10%',
         text='<v Bob>Overlap {x} *y* &amp; more',
         want608='Overlap {x) *y* & more', want708='Overlap {x} *y* & more',
         t608=(5072, 6406), t708=(4805, 6406), line608=[1], italic=[]),
    dict(start=6500, end=7000, settings='line:-1', text='Short one',
         want608='Short one', want708='Short one', t608=(6507, 7007), t708=(6507, 7007),
         line608=[15], italic=[]),
    dict(start=8000, end=10000, settings='position:50%,line-left',
         text='Ça va? Él está aquí. Ärger über Öl',
         want608='Ça va? Él está aquí. Ärger über\nÖl', want708='Ça va? Él está aquí. Ärger über\nÖl',
         t608=(8008, 10010), t708=(8008, 10010), line608=[14, 15], italic=[]),
    dict(start=10000, end=12000, settings='align:end line:3', text='Right <i>side</i>',
         want608='Right <i>side</i>', want708='Right side', t608=(10077, 12012), t708=(10043, 12012),
         line608=[4], italic=['side']),
    dict(start=13000, end=16000, settings='line:50%,center',
         text='Line one of three\\nLine two\\nLine three is here',
         want608='Line one of three\nLine two\nLine three is here',
         want708='Line one of three\nLine two\nLine three is here',
         t608=(13013, 16016), t708=(13013, 16016), line608=[7, 8, 9], italic=[]),
    dict(start=16500, end=18000, settings='', text='¡Sí! — ¿Qué? … ♪♪ ß',
         want608='¡Sí! -- ¿Qué? ... ♪ ♪ ß', want708='¡Sí! - ¿Qué? … ♪♪ ß',
         t608=(16517, 17985), t708=(16517, 17985), line608=[15], italic=[]),
]


def write_cues(path, cues):
    with open(path, 'w', encoding='utf-8') as f:
        for c in cues:
            f.write('%d\t%d\t%s\t%s\n' % (c['start'], c['end'], c['settings'], c['text']))


def run_dump(name, cues, scc=False):
    """Runs cea_dump over the cues; returns (dump json path, parsed, scc path)."""
    cue_file = os.path.join(WORK, name + '.txt')
    json_file = os.path.join(WORK, name + '.json')
    scc_file = os.path.join(WORK, name + '.scc')
    write_cues(cue_file, cues)
    args = [DUMP, '--cues', cue_file, '--json', json_file]
    if scc:
        args += ['--scc', scc_file]
    subprocess.run(args, check=True, timeout=60)
    with open(json_file, encoding='utf-8') as f:
        return json_file, json.load(f), scc_file


def ensure_muxjs():
    """Returns (node_path, None) with mux.js installed, or (None, reason)."""
    if not shutil.which('node') or not shutil.which('npm'):
        return None, 'node or npm is not installed'
    modules = os.path.join(NPM_CACHE, 'node_modules')
    pkg = os.path.join(modules, 'mux.js', 'package.json')

    def installed():
        try:
            with open(pkg, encoding='utf-8') as f:
                return json.load(f).get('version') == MUXJS_VERSION
        except (OSError, ValueError):
            return False

    if not installed():
        os.makedirs(NPM_CACHE, exist_ok=True)
        try:
            r = subprocess.run(['npm', 'install', '--prefix', NPM_CACHE, '--no-audit', '--no-fund',
                                '--loglevel=error', 'mux.js@' + MUXJS_VERSION],
                               capture_output=True, text=True, timeout=300)
        except subprocess.TimeoutExpired:
            return None, 'npm install mux.js@%s timed out' % MUXJS_VERSION
        if r.returncode != 0 or not installed():
            return None, 'npm install mux.js@%s failed: %s' % (MUXJS_VERSION, r.stderr.strip()[-500:])
    return modules, None


def muxjs_decode(node_path, json_file):
    env = dict(os.environ, NODE_PATH=node_path)
    r = subprocess.run(['node', os.path.join(HERE, 'cea_muxjs_decode.js'), json_file],
                       capture_output=True, text=True, timeout=120, env=env)
    if r.returncode != 0:
        raise AssertionError('mux.js decoder failed: ' + r.stderr)
    return json.loads(r.stdout)


def merge_pieces(entries):
    """mux.js's 708 decoder ends its cue at every window command, so one
    caption can come out as contiguous pieces with the same text."""
    out = []
    for e in entries:
        if out and out[-1]['text'] == e['text'] and out[-1]['end'] == e['start']:
            out[-1] = dict(out[-1], end=e['end'])
        else:
            out.append(dict(e))
    return out


def plain(text):
    """Text without italics tags, rows joined by one space, spaces collapsed."""
    text = re.sub(r'</?i>', '', text)
    return ' '.join(text.split())


def italic_words(text):
    return set(' '.join(re.findall(r'<i>(.*?)</i>', text, re.S)).split())


def read_srt(path):
    with open(path, encoding='utf-8') as f:
        blocks = f.read().strip().split('\n\n')
    out = []
    for b in blocks:
        lines = b.split('\n')
        m = re.match(r'(\d+):(\d+):(\d+),(\d+) --> (\d+):(\d+):(\d+),(\d+)', lines[1])
        t = [int(x) for x in m.groups()]
        start = ((t[0] * 60 + t[1]) * 60 + t[2]) * 1000 + t[3]
        end = ((t[4] * 60 + t[5]) * 60 + t[6]) * 1000 + t[7]
        text = '\n'.join(lines[2:])
        text = re.sub(r'</?font[^>]*>', '', text)
        text = re.sub(r'\{\\[^}]*\}', '', text).replace('\\h', ' ')
        out.append(dict(start=start, end=end, text=text))
    return out


def show_key_708(cc708):
    """Key of the packet that displays the caption: a one-block packet
    (block header 22 or 24) whose first command is HDW or DSW."""
    for key, words in cc708:
        for (typ, v), (_, nxt) in zip(words, words[1:]):
            if typ == 0xFF and v & 0xFF in (0x22, 0x24) and nxt >> 8 in (0x89, 0x8A):
                return key
    raise AssertionError('no show packet')


def scc_label_ms(key):
    """Time an SCC reader gives the frame of `key`: its 30-frame label, with
    frames counted as 33 ms."""
    frame = (key * 60 + 1001) // 2002
    return (frame // 30) * 1000 + (frame % 30) * 33


class CeaDecodeTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        if not DUMP or not os.access(DUMP, os.X_OK):
            raise unittest.SkipTest('PELVANE_CEA_DUMP_BIN is not set to the cea_dump tool')
        os.makedirs(WORK, exist_ok=True)
        cls.json_file, cls.dump, cls.scc_file = run_dump('fixed', CUES, scc=True)
        cls.node_path, cls.npm_problem = ensure_muxjs()
        cls.decoded = muxjs_decode(cls.node_path, cls.json_file) if cls.node_path else None

    def need_muxjs(self):
        if self.decoded is None:
            self.skipTest('mux.js unavailable: ' + self.npm_problem)

    def test_every_cue_converted(self):
        for i, c in enumerate(self.dump['cues']):
            self.assertTrue(c['cc608'], 'cue %d has no CEA-608 data' % i)
            self.assertTrue(c['cc708'], 'cue %d has no CEA-708 data' % i)

    def test_muxjs_608(self):
        self.need_muxjs()
        got = self.decoded['cc608']
        self.assertEqual(len(got), len(CUES), [g['text'] for g in got])
        for i, (c, g) in enumerate(zip(CUES, got)):
            self.assertEqual(g['text'], c['want608'], 'cue %d text' % i)
            self.assertEqual((g['start'], g['end']), c['t608'], 'cue %d times' % i)
            self.assertEqual([r['line'] for r in g['rows']], c['line608'], 'cue %d rows' % i)
            self.assertEqual(italic_words(g['text']), set(c['italic']), 'cue %d italics' % i)

    def test_muxjs_708(self):
        self.need_muxjs()
        got = merge_pieces(self.decoded['cc708'])
        self.assertEqual(len(got), len(CUES), [g['text'] for g in got])
        for i, (c, g) in enumerate(zip(CUES, got)):
            self.assertEqual(g['text'], c['want708'], 'cue %d text' % i)
            self.assertEqual((g['start'], g['end']), c['t708'], 'cue %d times' % i)

    def test_muxjs_sei_route_matches_direct_decoding(self):
        # The cc_data header bytes (FC for the 608 pair, FF/FE for DTVCC) and
        # the 608-first order must let a caption stream demultiplex both.
        self.need_muxjs()
        sei = self.decoded['sei']
        key = lambda e: (e['start'], e['end'], e['text'])
        cc1 = [key(e) for e in sei if e['stream'] == 'CC1']
        svc1 = [key(e) for e in merge_pieces([e for e in sei if e['stream'] == 'cc708_1'])]
        self.assertEqual(cc1, [key(e) for e in self.decoded['cc608']])
        self.assertEqual(svc1, [key(e) for e in merge_pieces(self.decoded['cc708'])])

    def test_ffmpeg_scc(self):
        if not shutil.which('ffmpeg'):
            self.skipTest('the ffmpeg tool is not installed')
        srt = os.path.join(WORK, 'fixed.srt')
        subprocess.run(['ffmpeg', '-hide_banner', '-loglevel', 'error', '-y', '-i', self.scc_file, srt],
                       check=True, timeout=60, stdin=subprocess.DEVNULL)
        got = read_srt(srt)
        self.assertEqual(len(got), len(CUES), [g['text'] for g in got])
        for i, (c, g) in enumerate(zip(CUES, got)):
            self.assertEqual(plain(g['text']), plain(c['want608']), 'cue %d text' % i)
            self.assertEqual(italic_words(g['text']), set(c['italic']), 'cue %d italics' % i)
            self.assertEqual((g['start'], g['end']),
                             (scc_label_ms(c['t608'][0]), scc_label_ms(c['t608'][1])), 'cue %d times' % i)
            # Cue times round to the nearest frame (17 ms); the labels run 0.1 %
            # behind the 29.97 clock and count a frame as 33 ms (up to 11 ms).
            slack = 17 + 11 + c['end'] // 1000 + 1
            self.assertLessEqual(abs(g['end'] - c['end']), slack, 'cue %d end' % i)

    def test_random_sequences_muxjs(self):
        # Cues with random gaps, overlaps and placements: every cue the
        # converters keep decodes to its text, at the time its data says.
        self.need_muxjs()
        rng = random.Random(4242)
        words = ['alpha', 'beta', 'gamma', 'café', 'niño', '♪', 'über', 'x', '<i>tilt</i>', 'Ærø']
        placements = ['', 'line:0 align:start', 'line:90%', 'position:10%,line-left',
                      'line:-2 align:end', 'size:50%']
        for run in range(12):
            cues, t = [], 500 + rng.randrange(2000)
            for i in range(10):
                start = t + rng.choice([0, 0, 40, -300, 500, 2000, -1500])
                dur = 300 + rng.randrange(3000)
                text = ' '.join(rng.choice(words) for _ in range(1 + rng.randrange(8))) + ' #%d' % i
                cues.append(dict(start=start, end=start + dur, settings=rng.choice(placements), text=text))
                t = max(t, start + dur)
            cues.sort(key=lambda c: c['start'])
            json_file, dump, _ = run_dump('random%d' % run, cues)
            decoded = muxjs_decode(self.node_path, json_file)
            d608 = decoded['cc608']
            d708 = merge_pieces(decoded['cc708'])
            for c, out in zip(cues, dump['cues']):
                # Æ has no base letter: dropped in 608, Latin-1 in 708.
                want = plain(c['text'])
                if out['cc608']:
                    eoc = next(k for k, b1, b2 in out['cc608'] if (b1, b2) == (0x94, 0x2F))
                    shown = [plain(g['text']) for g in d608 if g['start'] == eoc]
                    self.assertEqual(shown, [want.replace('Æ', '')], 'run %d cue %s' % (run, c['text']))
                if out['cc708']:
                    dsw = show_key_708(out['cc708'])
                    shown = [plain(g['text']) for g in d708 if g['start'] == dsw]
                    self.assertEqual(shown, [want], 'run %d cue %s' % (run, c['text']))


if __name__ == '__main__':
    unittest.main(verbosity=2)
