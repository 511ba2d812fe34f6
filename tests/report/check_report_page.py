#!/usr/bin/env python3
"""The report page in a real browser (headless Chromium).

With --tool and --simulator: makes the page of a simulator capture (oltb report straight from the server) and
checks it; with --page: checks that page. Checked: no script error and no console message, whole and zoomed in
(the page's samples level, on a window as narrow as paper); the verdict the page writes says it drew every view
(the time plots, the XY path, the close-ups of mark edges and jumps), each axis of each has at least two numbered
ticks and no two of its texts overlap; in a screenshot every view has lines, the XY path with the laser on and off;
printed to PDF at once (as a browser prints it), the plots are there. With the simulator also: the positions the
page unpacked span exactly the range of a capture of the same job by oltb acquire. --screenshot keeps the
screenshot (docs/report.png). With --compare: the page of oltb compare of two simulator captures (or --page),
checked the same way, and each close-up holds both traces. Exit 0 passed, 1 failed, 77 skipped (no chromium).
Every run of a program is bounded in time.
"""
import argparse, glob, json, os, re, shutil, struct, subprocess, sys, tempfile, time, zlib

WINDOW = (1600, 1800)
PAPER = (700, 1800)  # the width of the page as printed: the page draws again at it before printing
VIEWS = ('xy', 'plot-x', 'plot-y', 'plot-speed', 'plot-error', 'plot-laser', 'edge-start', 'edge-end', 'jump')
SIGNALS = 'Head0TxX,Head0TxY,Head0RxX,Head0RxY,Gate,LaserPower16,Label'


def chromium(work, *arguments, window=WINDOW):
    profile = tempfile.mkdtemp(dir=work)  # a new profile each run: nothing left from before
    command = ['chromium', '--headless', '--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
               '--disable-background-networking', '--disable-component-update', '--disable-sync',
               '--user-data-dir=' + profile, '--hide-scrollbars', '--force-device-scale-factor=1',
               '--window-size=%d,%d' % window, '--enable-logging=stderr', '--v=0', *arguments]
    return subprocess.run(command, capture_output=True, text=True, timeout=90)


def load(work, page, hash='', window=WINDOW):
    """The verdict of the page as drawn, and the console messages."""
    run = chromium(work, '--virtual-time-budget=5000', '--dump-dom', 'file://' + os.path.abspath(page) + hash,
                   window=window)
    found = re.search(r'<div id="verdict"[^>]*>([^<]*)</div>', run.stdout)
    # Messages of the page itself; Chromium's own pages (source chrome://...) speak of its network and fonts.
    console = [line for line in run.stderr.splitlines()
               if ('CONSOLE' in line or 'Uncaught' in line) and 'source: chrome://' not in line]
    verdict = json.loads(found.group(1).replace('&quot;', '"').replace('&amp;', '&')) if found and found.group(1) else {}
    return verdict, console


def pixels(path):
    """Width, height and rows of RGB(A) bytes of an 8-bit PNG, as Chromium writes them."""
    data = open(path, 'rb').read()
    position, chunks = 8, []
    while position < len(data):
        size, kind = struct.unpack('>I4s', data[position:position + 8])
        body = data[position + 8:position + 8 + size]
        if kind == b'IHDR':
            width, height, depth, color = struct.unpack('>IIBB', body[:10])
        elif kind == b'IDAT':
            chunks.append(body)
        position += 12 + size
    assert depth == 8 and color in (2, 6), 'unexpected PNG format'
    step = 3 if color == 2 else 4
    raw, stride, rows = zlib.decompress(b''.join(chunks)), width * step, []
    prior = bytearray(stride)
    for y in range(height):
        kind, line = raw[y * (stride + 1)], bytearray(raw[y * (stride + 1) + 1:(y + 1) * (stride + 1)])
        if kind == 1:
            for i in range(step, stride):
                line[i] = (line[i] + line[i - step]) & 255
        elif kind == 2:
            line = bytearray((a + b) & 255 for a, b in zip(line, prior))
        elif kind == 3:
            for i in range(stride):
                line[i] = (line[i] + (((line[i - step] if i >= step else 0) + prior[i]) >> 1)) & 255
        elif kind == 4:
            for i in range(stride):
                a, b, c = (line[i - step], prior[i], prior[i - step]) if i >= step else (0, prior[i], 0)
                p = a + b - c
                pa, pb, pc = abs(p - a), abs(p - b), abs(p - c)
                line[i] = (line[i] + (a if pa <= pb and pa <= pc else b if pb <= pc else c)) & 255
        rows.append(line)
        prior = line
    return step, rows


def colours(step, rows, box):
    """Pixels inside the box: drawn in a strong colour (lines, not shading), of them red, of them blue."""
    left, top, width, height = box
    strong = red = blue = 0
    for y in range(top + 3, min(top + height - 3, len(rows))):
        line = rows[y]
        for x in range(left + 3, min(left + width - 3, len(line) // step)):
            r, g, b = line[x * step:x * step + 3]
            if max(r, g, b) - min(r, g, b) > 60:
                strong += 1
                red += r > 150 and g < 100 and b < 100
                blue += b > 150 and r < 100
    return strong, red, blue


def texts(views):
    """Each axis of each view has two numbered ticks or more; no two texts of a view overlap (boxes in pixels)."""
    failures = []
    for name, view in sorted(views.items()):
        boxes = view['texts']
        for axis in sorted({'x', 'y'} | {box[0] for box in boxes if box[0] == 'y2'}):
            if sum(1 for box in boxes if box[0] == axis and re.search(r'\d', box[1])) < 2:
                failures.append('%s: fewer than two numbered ticks on its %s axis' % (name, axis))
        for i, a in enumerate(boxes):
            for b in boxes[i + 1:]:
                if min(a[2] + a[4], b[2] + b[4]) - max(a[2], b[2]) > 0.5 and \
                        min(a[3] + a[5], b[3] + b[5]) - max(a[3], b[3]) > 0.5:
                    failures.append('%s: %r overlaps %r' % (name, a, b))
    return failures


def printed(work, page):
    """Strongly coloured pixels (all, red, blue) of the page printed to PDF, as chromium prints it once it has
    loaded; None without pdftoppm (poppler-utils)."""
    pdf = os.path.join(work, 'page.pdf')
    chromium(work, '--no-pdf-header-footer', '--print-to-pdf=' + pdf, 'file://' + os.path.abspath(page))
    if not shutil.which('pdftoppm'):
        return None
    subprocess.run(['pdftoppm', '-r', '50', '-png', pdf, os.path.join(work, 'printed')], check=True, timeout=60)
    totals = [0, 0, 0]
    for name in glob.glob(os.path.join(work, 'printed*.png')):
        step, rows = pixels(name)
        totals = [a + b for a, b in zip(totals, colours(step, rows, (0, 0, len(rows[0]) // step, len(rows))))]
    return totals


def views_drawn(work, page, verdict, screenshot):
    """The pixels of each view (colours) in a screenshot of the whole page."""
    shot = screenshot or os.path.join(work, 'page.png')
    chromium(work, '--virtual-time-budget=5000', '--screenshot=' + shot, 'file://' + os.path.abspath(page),
             window=(WINDOW[0], min(verdict['height'], 8000)))
    step, rows = pixels(shot)
    return [(name, colours(step, rows, box)) for name, box in sorted(verdict['boxes'].items())]


def check(work, page, screenshot, ranges):
    failures = []
    started = time.monotonic()
    verdict, console = load(work, page)
    failures += ['console: ' + line for line in console] + ['script error: ' + e for e in verdict.get('errors', [])]
    if verdict.get('state') != 'drawn':
        return failures + ['the page did not draw: %r' % verdict]
    print('page drawn %d ms after it began loading; views %s' % (verdict['loadMs'], sorted(verdict['views'])))
    for series, signal in (('cx', 'Head0TxX'), ('cy', 'Head0TxY'), ('ax', 'Head0RxX'), ('ay', 'Head0RxY')):
        if ranges:
            print('%s on the page %r, in the capture %r' % (signal, verdict['ranges'].get(series), ranges[signal]))
        if ranges and tuple(verdict['ranges'].get(series, ())) != ranges[signal]:
            failures.append('%s on the page spans %r, in the capture %r' % (signal, verdict['ranges'].get(series),
                                                                            ranges[signal]))
    views = verdict['views']
    for view in VIEWS:
        if not any((name == view or name.startswith(view + '-')) and views[name]['points'] > 0 for name in views):
            failures.append(view + ' was not drawn')
    failures += texts(views)
    zoomed, console = load(work, page, '#t=140000,141000', PAPER)
    failures += ['zoomed, console: ' + line for line in console] + ['zoomed: ' + e for e in zoomed.get('errors', [])]
    if zoomed.get('inView') != 'samples':
        failures.append('zoomed to 1 ms the plots do not show the samples: %r' % zoomed.get('inView'))
    failures += ['as wide as paper, ' + failure for failure in texts(zoomed.get('views', {}))]
    for name, (strong, red, blue) in views_drawn(work, page, verdict, screenshot):
        print('%-16s %7d drawn pixels, %6d red, %6d blue' % (name, strong, red, blue))
        box = verdict['boxes'][name]
        if strong < (300 if box[2] * box[3] > 100000 else 100) or (name == 'xy' and (red < 300 or blue < 100)):
            failures.append('%s looks blank in the screenshot (%d drawn, %d red, %d blue)' % (name, strong, red, blue))
    on_paper = printed(work, page)
    print('printed at once: %s drawn pixels, red, blue' % (on_paper or 'not checked (no pdftoppm)'))
    # Blank plots leave about 3,000, 170 and 250 (the page's own colours); drawn ones about 15,000, 860 and 1,300.
    if on_paper and (on_paper[0] < 8000 or on_paper[1] < 450 or on_paper[2] < 600):
        failures.append('the page printed at once has blank plots: %r drawn, red, blue pixels' % on_paper)
    print('checked in %.1f s' % (time.monotonic() - started))
    return failures


def served(work, simulator, address, options, commands):
    """Runs `commands` (lists of arguments) while the simulator serves its job with `options`."""
    log = open(os.path.join(work, 'simulator.out'), 'w+')
    server = subprocess.Popen([simulator, '--address', address, *options], stdout=log, stderr=subprocess.STDOUT)
    try:
        deadline = time.monotonic() + 10
        while 'listening on' not in open(log.name).read():
            if time.monotonic() > deadline or server.poll() is not None:
                raise RuntimeError('the simulator did not start: ' + open(log.name).read())
            time.sleep(0.1)
        for command in commands:
            subprocess.run(command, check=True, timeout=60, stdout=subprocess.DEVNULL)
    finally:
        server.terminate()
        try:
            server.wait(timeout=5)
        except subprocess.TimeoutExpired:
            server.kill()
            server.wait(timeout=5)


def simulator_page(work, tool, simulator, address):
    """The page of the simulator's job, made by oltb report from the server itself."""
    page, capture = os.path.join(work, 'job.html'), os.path.join(work, 'job.csv')
    served(work, simulator, address, [], [[tool, command, address, '--start', '1', '--end', '2', '--signals', SIGNALS,
                                           '--timeout', '5', '--max-wait', '30', '-q', '-o', output]
                                          for command, output in (('report', page), ('acquire', capture))])
    ranges = {}
    for row in open(capture).read().splitlines()[1:]:
        signal, value = row.split(',')[2], int(row.split(',')[4])
        low, high = ranges.get(signal, (value, value))
        ranges[signal] = (min(low, value), max(high, value))
    return page, ranges


def compare_page(work, tool, simulator, address):
    """The page of oltb compare: the simulator's job traced with its delays, then with others."""
    captures = [os.path.join(work, name) for name in ('before.csv', 'after.csv')]
    changed = '--laser-on-delay-us 283 --jump-delay-us 1300 --polygon-delay-us 0'.split()
    for capture, options in zip(captures, ([], changed)):
        served(work, simulator, address, options,
               [[tool, 'acquire', address, '--start', '1', '--end', '2', '--signals', SIGNALS, '-q', '-o', capture]])
    page = os.path.join(work, 'compare.html')
    subprocess.run([tool, 'compare', *captures, '-o', page], check=True, timeout=60, stdout=subprocess.DEVNULL)
    return page


def check_compare(work, page, screenshot):
    """The comparison page as the report page is checked, and every close-up with both traces in it."""
    failures = []
    for window in (PAPER, WINDOW):
        verdict, console = load(work, page, window=window)
        failures += ['console: ' + line for line in console] + ['script error: ' + e for e in verdict.get('errors', [])]
        if verdict.get('state') != 'drawn':
            return failures + ['the page did not draw: %r' % verdict]
        failures += ['%d pixels wide, %s' % (window[0], failure) for failure in texts(verdict['views'])]
    for view in ('edge-start', 'edge-end', 'jumps', 'corner'):
        if not any(name.startswith(view + '-') and v['points'] > 0 for name, v in verdict['views'].items()):
            failures.append(view + ' was not drawn')
    for name, (strong, after, before) in views_drawn(work, page, verdict, screenshot):  # orange counts as red
        print('%-16s %7d drawn pixels, %6d after, %6d before' % (name, strong, after, before))
        if after < 80 or before < 80:
            failures.append('%s lacks a trace in the screenshot (%d after, %d before)' % (name, after, before))
    on_paper = printed(work, page)
    print('printed at once: %s drawn pixels, after, before' % (on_paper or 'not checked (no pdftoppm)'))
    if on_paper and (on_paper[1] < 3000 or on_paper[2] < 3000):  # blank: about 1,800 and 2,100
        failures.append('the page printed at once has blank plots: %r drawn, after, before pixels' % on_paper)
    return failures


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument('--page')
    parser.add_argument('--tool')
    parser.add_argument('--simulator')
    parser.add_argument('--address', default='127.0.4.14')
    parser.add_argument('--screenshot')
    parser.add_argument('--compare', action='store_true', help='the page of oltb compare instead')
    options = parser.parse_args()
    if subprocess.run(['sh', '-c', 'command -v chromium'], capture_output=True).returncode != 0:
        print('skipped: chromium is not installed (scripts/setup.sh build installs it)')
        return 77
    with tempfile.TemporaryDirectory() as work:
        if options.compare:
            page = options.page or compare_page(work, options.tool, options.simulator, options.address)
            failures = check_compare(work, page, options.screenshot)
        else:
            page, ranges = (options.page, None) if options.page else simulator_page(
                work, options.tool, options.simulator, options.address)
            failures = check(work, page, options.screenshot, ranges)
    for failure in failures:
        print('FAIL: ' + failure)
    return 1 if failures else 0


if __name__ == '__main__':
    sys.exit(main())
