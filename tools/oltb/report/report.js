// The report page's script. It reads the trace's data (the element trace-data, written by oltb report), fills the
// header and the tables, draws the XY path on a canvas of its own and the time plots with dygraphs, and keeps all
// of them on one time window: zooming one time plot zooms the others, and the XY path draws the part in view wider.
//
// The time series come on several grids of columns, each column holding the smallest and largest sample in the
// order they came, and possibly as the samples themselves. For the window in view the plots take the coarsest grid
// that still gives two points per pixel, and the overview for the rest of the trace.
// When everything has drawn, the element verdict tells (as JSON) what drew, any script errors, and the time taken:
// the browser test reads it.
'use strict';

(function () {
  const errors = [];
  const verdict = { state: 'loading', errors: errors };
  const showVerdict = () => { document.getElementById('verdict').textContent = JSON.stringify(verdict); };
  window.addEventListener('error', (event) => { errors.push(String(event.message)); showVerdict(); });
  window.addEventListener('unhandledrejection', (event) => { errors.push(String(event.reason)); showVerdict(); });

  const data = JSON.parse(document.getElementById('trace-data').textContent);
  const result = data.analysis;
  const unitsPerMm = data.unitsPerMm > 0 ? data.unitsPerMm : 0;
  const startUs = data.startUs;
  const endUs = data.startUs + data.durationUs;

  // ---- numbers ------------------------------------------------------------------------------------------------
  // A packed array (tools/oltb/report/PackedNumbers.h): base64 of deflated int32 differences of the scaled values.
  const GapMark = -2147483648;
  async function unpack(packed, Type) {
    const text = atob(packed.data);
    const bytes = new Uint8Array(text.length);
    for (let i = 0; i < text.length; ++i) bytes[i] = text.charCodeAt(i);
    const inflated = new Blob([bytes]).stream().pipeThrough(new DecompressionStream('deflate'));
    const differences = new Int32Array(await new Response(inflated).arrayBuffer());
    if (differences.length !== packed.count) throw new Error('a packed array holds ' + differences.length + ' of ' + packed.count + ' numbers');
    const values = new Type(packed.count);
    let sum = 0;
    for (let i = 0; i < differences.length; ++i) {
      if (differences[i] === GapMark) {
        values[i] = NaN;
      } else {
        sum += differences[i];
        values[i] = packed.offset + sum / packed.scale;
      }
    }
    return values;
  }

  const known = (v) => v !== null && v !== undefined && Number.isFinite(v);
  const fixed = (v, digits) => (known(v) ? v.toFixed(digits) : '–');
  const signed = (v, digits) => (known(v) ? (v > 0 ? '+' : v < 0 ? '−' : '') + Math.abs(v).toFixed(digits) : '–');
  const us = (v) => (known(v) ? v.toFixed(1) + ' µs' : '–');
  const length = (v) => (!known(v) ? '–' : unitsPerMm ? (v / unitsPerMm).toFixed(3) + ' mm' : Math.round(v) + ' units');
  const error = (v) => (!known(v) ? '–' : unitsPerMm ? (v / unitsPerMm * 1000).toFixed(1) + ' µm' : v.toFixed(1) + ' units');
  const speed = (v) => (!known(v) ? '–' : unitsPerMm ? (v / unitsPerMm * 1000).toFixed(1) + ' mm/s' : Math.round(v) + ' units/ms');
  const positionScale = unitsPerMm ? 1 / unitsPerMm : 1;
  const errorScale = unitsPerMm ? 1000 / unitsPerMm : 1;
  const positionUnit = unitsPerMm ? 'mm' : 'units';
  const errorUnit = unitsPerMm ? 'µm' : 'units';
  const ms = (v) => +(v / 1000).toFixed(3) + ' ms';

  // The first index of a sorted array whose value is at least `value`.
  function lowerBound(array, value) {
    let low = 0;
    let high = array.length;
    while (low < high) {
      const middle = (low + high) >> 1;
      if (array[middle] < value) low = middle + 1; else high = middle;
    }
    return low;
  }

  function element(tag, text, className) {
    const node = document.createElement(tag);
    if (text !== undefined) node.textContent = text;
    if (className) node.className = className;
    return node;
  }

  function tableRows(table, header, rows) {
    const head = table.createTHead().insertRow();
    for (const title of header) head.appendChild(element('th', title));
    const body = table.createTBody();
    return rows.map((cells) => {
      const row = body.insertRow();
      for (const cell of cells) row.appendChild(element('td', cell));
      return row;
    });
  }

  // ---- header --------------------------------------------------------------------------------------------------
  const marks = result.marks;
  const jumps = result.jumps;
  const cutShort = new Set(data.cutShortJumps);
  const settlingKnown = data.settlingKnown;
  const unsettled = jumps.filter((jump, i) => settlingKnown && !jump.settled && !cutShort.has(i)).length;
  const lost = data.signals.reduce((sum, signal) => sum + signal[2], 0);

  document.getElementById('source').textContent = data.source + ' — head ' + data.head;
  tableRows(document.getElementById('capture'), [], [
    ['Source', data.source],
    ['Duration', ms(data.durationUs)],
    ['Events', data.events.toLocaleString('en')],
    ['Signals', data.signals.map((signal) => signal[0]).join(', ')],
    ['Lost events', lost === 0 ? 'none' : lost + ' (the server\'s buffer overflowed; figures near them are less sure)'],
  ]).forEach((row) => { row.cells[0].outerHTML = '<th>' + row.cells[0].textContent + '</th>'; });
  tableRows(document.getElementById('signals'), ['signal', 'events', 'lost'],
    data.signals.map((signal) => [signal[0], signal[1].toLocaleString('en'), String(signal[2])]));

  const where = result.marks.length > 0 ? 'while marking' : 'over the whole trace';
  const figures = [
    ['Tracking error', 'X ' + us(result.tracking_error_us.x) + ', Y ' + us(result.tracking_error_us.y),
      'How long the mirror runs behind the command. The laser-on delay and the jump delays must cover it.'],
    ['Following error X', 'rms ' + error(result.following_error.x.rms) + ', max ' + error(result.following_error.x.max),
      'Mirror minus the command shifted by the tracking error, ' + where + ': corners, mark starts and overshoot.'],
    ['Following error Y', 'rms ' + error(result.following_error.y.rms) + ', max ' + error(result.following_error.y.max),
      'The same on Y.'],
    ['Path deviation', 'rms ' + error(result.path_deviation.rms) + ', max ' + error(result.path_deviation.max),
      'Distance of the mirror from the commanded path ' + where + ': the error that shows in the part.'],
    ['Laser on', signed(result.laser.on_offset_us, 1) + ' µs',
      'Gate on minus the start of the mirror\'s motion (median): − burns a dot at the start, + loses the start.'],
    ['Laser off', signed(result.laser.off_offset_us, 1) + ' µs',
      'Gate off minus the end of the mirror\'s motion (median): − loses the end, + burns a dot at the end.'],
    ['Marks', String(marks.length), 'Each time the laser gate is on.'],
    ['Jumps', jumps.length + (settlingKnown ? ', ' + unsettled + ' not settled' : ', settling not measured'),
      'Not settled: the mirror is still outside ' + length(data.settleBand) +
      ' of the target when the next motion begins; the jump delay is too short.'],
  ];
  const figureTable = document.getElementById('figures');
  for (const [name, value, meaning] of figures) {
    const row = figureTable.insertRow();
    row.appendChild(element('th', name));
    row.appendChild(element('td', value, 'value'));
    row.appendChild(element('td', meaning, 'meaning'));
  }
  const suggestions = document.getElementById('suggestions');
  for (const item of data.suggestions) suggestions.appendChild(element('li', item.replace(/\n\s+/g, ' ')));
  if (data.suggestions.length === 0) suggestions.appendChild(element('li', 'Nothing: the trace gave no figure to act on.'));
  if (data.missing.length > 0) {
    const missing = document.getElementById('missing');
    missing.appendChild(element('strong', 'Not measured'));
    const list = missing.appendChild(element('ul'));
    for (const item of data.missing) list.appendChild(element('li', item));
  }

  // ---- the trace's data ------------------------------------------------------------------------------------------
  let levels = [];
  let commandedPath = null;
  let actualPath = null;
  let laserLines = [];
  async function unpackAll() {
    const unpackValues = async (packed) => {
      const values = {};
      for (const id of Object.keys(packed)) values[id] = await unpack(packed[id], Float32Array);
      return values;
    };
    levels = await Promise.all(data.levels.map(async (level) => (level.times
      ? { times: await unpack(level.times, Float64Array), values: await unpackValues(level.values) }
      : { start: level.start, step: level.step, columns: level.columns, values: await unpackValues(level.values) })));
    const unpackPath = async (path) => (path ? { t: await unpack(path.t, Float64Array),
      x: await unpack(path.x, Float32Array), y: await unpack(path.y, Float32Array),
      samples: path.samples, distance: path.distance } : null);
    commandedPath = await unpackPath(data.path.commanded);
    actualPath = await unpackPath(data.path.actual);
    laserLines = await Promise.all([data.power, data.gate].filter((line) => line).map(async (line) => ({
      name: line.name, gate: line === data.gate, t: await unpack(line.t, Float64Array),
      v: await unpack(line.v, Float32Array) })));
  }
  const markStarts = Float64Array.from(marks, (mark) => mark.start_us);
  const labels = data.labels;
  const labelTimes = Float64Array.from(labels, (label) => label[0]);

  // ---- time plots ------------------------------------------------------------------------------------------------
  const plots = [];
  let view = [startUs, endUs];
  let applied = null;  // the window whose data the plots hold
  let syncing = false;

  // The level to show a window of `span` µs on `pixels` columns: the coarsest with two points per pixel.
  function levelFor(span, pixels) {
    for (const level of levels) {
      if (level.times || level.step <= span / pixels) return level;
    }
    return levels[levels.length - 1];
  }

  function appendRows(rows, level, ids, scales, from, to) {
    const series = ids.map((id) => level.values[id]);
    const row = (t, index) => {
      const values = [t];
      for (let s = 0; s < series.length; ++s) {
        const v = series[s][index];
        values.push(Number.isNaN(v) ? null : v * scales[s]);
      }
      rows.push(values);
    };
    if (level.times) {
      const last = Math.min(level.times.length, lowerBound(level.times, to));
      for (let i = lowerBound(level.times, from); i < last; ++i) row(level.times[i], i);
      return;
    }
    const first = Math.max(0, Math.floor((from - level.start) / level.step));
    const last = Math.min(level.columns, Math.ceil((to - level.start) / level.step));
    for (let c = first; c < last; ++c) {
      const t = level.start + c * level.step;
      row(t, 2 * c);
      row(t + level.step / 2, 2 * c + 1);
    }
  }

  // The rows of a plot for the window [a, b]: the detail for the window and a little around it, the overview
  // elsewhere, so that the plot always spans the whole trace.
  function rowsFor(plot, a, b) {
    const overview = levels[0];
    const detail = levelFor(b - a, Math.max(200, plot.div.clientWidth));
    const rows = [];
    if (detail === overview) {
      appendRows(rows, overview, plot.ids, plot.scales, -Infinity, Infinity);
      return rows;
    }
    const margin = (b - a) * 0.1;
    const from = Math.max(startUs, a - margin);
    const to = Math.min(endUs, b + margin) + 1e-9;
    const before = Math.floor((from - overview.start) / overview.step) * overview.step + overview.start;
    const after = Math.ceil((to - overview.start) / overview.step) * overview.step + overview.start;
    appendRows(rows, overview, plot.ids, plot.scales, -Infinity, before);
    if (detail.times) {
      appendRows(rows, detail, plot.ids, plot.scales, before, after);
    } else {
      const first = Math.floor((before - detail.start) / detail.step) * detail.step + detail.start;
      appendRows(rows, detail, plot.ids, plot.scales, first, after);
    }
    appendRows(rows, overview, plot.ids, plot.scales, after, Infinity);
    return rows;
  }

  // Laser gate shading and label lines under every time plot.
  function underlay(canvas, area, graph) {
    const [a, b] = graph.xAxisRange();
    canvas.save();
    canvas.beginPath();
    canvas.rect(area.x, area.y, area.w, area.h);
    canvas.clip();
    canvas.fillStyle = getComputedStyle(document.documentElement).getPropertyValue('--gate');
    for (let i = Math.max(0, lowerBound(markStarts, a) - 1); i < marks.length && marks[i].start_us <= b; ++i) {
      const left = Math.max(area.x, graph.toDomXCoord(marks[i].start_us));
      const right = Math.min(area.x + area.w, graph.toDomXCoord(marks[i].end_us));
      if (right > left) canvas.fillRect(left, area.y, right - left, area.h);
    }
    const first = lowerBound(labelTimes, a);
    const last = lowerBound(labelTimes, b);
    if (last - first <= 200) {
      canvas.strokeStyle = '#7a4fb5';
      canvas.fillStyle = '#7a4fb5';
      canvas.setLineDash([3, 3]);
      canvas.font = '11px sans-serif';
      for (let i = first; i < last; ++i) {
        const x = graph.toDomXCoord(labels[i][0]);
        canvas.beginPath();
        canvas.moveTo(x, area.y);
        canvas.lineTo(x, area.y + area.h);
        canvas.stroke();
        canvas.fillText(String(labels[i][1]), x + 2, area.y + 11);
      }
    }
    canvas.restore();
  }

  // Time ticks in ms, or in s for traces of ten seconds and more, with as many decimals as the window in view needs.
  const inSeconds = endUs >= 1e7;
  const xAxis = {
    axisLabelFormatter: (v, granularity, options, graph) => {
      const unit = inSeconds ? 1e6 : 1e3;
      const [a, b] = graph.xAxisRange();
      const decimals = Math.min(6, Math.max(0, Math.ceil(-Math.log10((b - a) / unit / 10))));
      return (v / unit).toFixed(decimals) + (inSeconds ? ' s' : ' ms');
    },
    axisLabelWidth: 70,
    valueFormatter: (v) => v.toFixed(2) + ' µs',
  };

  function makePlot(id, title, ids, names, colors, scale, unit, last) {
    const present = ids.filter((series) => levels.length > 0 && levels[0].values[series]);
    const div = document.getElementById(id);
    if (present.length === 0) {
      div.hidden = true;
      return;
    }
    const plot = { div: div, ids: present, scales: present.map(() => scale) };
    plot.graph = new Dygraph(div, rowsFor(plot, view[0], view[1]), {
      labels: ['time'].concat(present.map((series) => names[ids.indexOf(series)])),
      colors: present.map((series) => colors[ids.indexOf(series)]),
      title: title, ylabel: unit, xlabel: last ? 'time from the start of the capture' : undefined,
      legend: 'always', labelsSeparateLines: false, labelsKMB: !unitsPerMm,
      connectSeparatedPoints: true, strokeWidth: 1.2, xRangePad: 0, animatedZooms: false, rightGap: rightGap,
      axes: { x: xAxis }, dateWindow: view.slice(),
      underlayCallback: underlay,
      zoomCallback: (a, b) => { if (!syncing) setWindow(a, b); },
      drawCallback: followPan,
    });
    plots.push(plot);
  }

  // While a plot pans, the others follow its window; the data for the new window comes when the pan ends.
  function followPan(graph, initial) {
    if (syncing || initial) return;
    const [a, b] = graph.xAxisRange();
    if (Math.abs(a - view[0]) + Math.abs(b - view[1]) < 1e-6 * (endUs - startUs)) return;
    view = [a, b];
    syncing = true;
    for (const plot of allPlots()) if (plot.graph !== graph) plot.graph.updateOptions({ dateWindow: [a, b] });
    syncing = false;
    drawPath();
  }

  // Sets the window of every time plot, with the data for it.
  function setWindow(a, b) {
    const full = endUs - startUs;
    const smallest = Math.max(full * 1e-7, 2);
    if (!(b > a)) [a, b] = [startUs, endUs];
    if (b - a < smallest) { const middle = (a + b) / 2; a = middle - smallest / 2; b = middle + smallest / 2; }
    if (b - a > full) { a = startUs; b = endUs; }
    if (a < startUs) { b += startUs - a; a = startUs; }
    if (b > endUs) { a -= b - endUs; b = endUs; }
    view = [a, b];
    applied = [a, b];
    syncing = true;
    for (const plot of plots) plot.graph.updateOptions({ file: rowsFor(plot, a, b), dateWindow: [a, b] });
    if (laserPlot) laserPlot.graph.updateOptions({ dateWindow: [a, b] });
    syncing = false;
    drawPath();
    describeDetail();
  }

  function allPlots() {
    return laserPlot ? plots.concat([laserPlot]) : plots;
  }

  // The laser: gate and power as steps, from their changes.
  function makeLaserPlot() {
    const div = document.getElementById('plot-laser');
    const lines = laserLines;
    if (lines.length === 0) {
      div.hidden = true;
      return null;
    }
    const series = lines;
    const rows = [];
    const next = series.map(() => 0);
    const latest = series.map(() => null);
    for (;;) {
      let t = Infinity;
      for (let s = 0; s < series.length; ++s) if (next[s] < series[s].t.length) t = Math.min(t, series[s].t[next[s]]);
      if (t === Infinity) break;
      const row = [t];
      for (let s = 0; s < series.length; ++s) {
        if (next[s] < series[s].t.length && series[s].t[next[s]] === t) {
          latest[s] = series[s].v[next[s]++];
          row.push(latest[s]);
        } else {
          row.push(null);
        }
      }
      rows.push(row);
    }
    if (rows.length > 0 && rows[rows.length - 1][0] < endUs) rows.push([endUs].concat(latest));
    // With the power beside it, the gate goes on an axis of its own.
    const twoAxes = lines.length === 2;
    const gate = lines.find((line) => line.gate);
    const gateAxis = gate ? { [gate.name]: twoAxes ? { axis: 'y2', fillGraph: true } : { fillGraph: true } } : {};
    const graph = new Dygraph(div, rows, {
      labels: ['time'].concat(lines.map((line) => line.name)),
      colors: lines.map((line) => (line.gate ? '#e0a100' : '#c62828')),
      title: 'Laser: ' + lines.map((line) => line.name).join(' and '), ylabel: lines[0].gate ? 'gate' : 'power',
      y2label: twoAxes ? 'gate' : undefined,
      xlabel: 'time from the start of the capture', legend: 'always', stepPlot: true,
      connectSeparatedPoints: true, strokeWidth: 1.2, xRangePad: 0, animatedZooms: false,
      series: gateAxis,
      axes: twoAxes ? { x: xAxis, y2: { valueRange: [-0.05, 1.4], independentTicks: true, drawGrid: false } }
        : { x: xAxis },
      dateWindow: view.slice(), underlayCallback: underlay,
      zoomCallback: (a, b) => { if (!syncing) setWindow(a, b); },
      drawCallback: followPan,
    });
    return { div: div, graph: graph };
  }

  function describeDetail() {
    const note = document.getElementById('time-note');
    if (levels.length === 0) {
      note.textContent = 'No head positions of head ' + data.head + ' in this capture.';
      return;
    }
    const inView = levelFor(view[1] - view[0], Math.max(200, plots.length ? plots[0].div.clientWidth : 800));
    const finest = levels[levels.length - 1];
    const shown = inView.times ? 'every sample' : 'the smallest and largest sample of each ' + us(inView.step);
    const held = finest.times ? 'every sample is in this page'
      : 'this page holds down to the smallest and largest sample of each ' + us(finest.step) +
        ' (the trace is too long to hold every sample; the figures above use every one)';
    note.textContent = 'In view: ' + us(view[1] - view[0]) + ', drawn from ' + shown + '; ' + held + '.';
    verdict.inView = inView.times ? 'samples' : inView.step;
  }

  // ---- XY path ---------------------------------------------------------------------------------------------------
  const canvas = document.getElementById('xy');
  const xy = { scale: 1, centerX: 0, centerY: 0 };
  // Whether the laser gate is on at each point of the actual path.
  let laserOn = null;
  function findLaserOn() {
    if (!actualPath) return;
    laserOn = new Uint8Array(actualPath.t.length);
    let m = 0;
    for (let i = 0; i < actualPath.t.length; ++i) {
      const t = actualPath.t[i];
      while (m < marks.length && marks[m].end_us < t) ++m;
      laserOn[i] = m < marks.length && marks[m].start_us <= t ? 1 : 0;
    }
  }

  function fitPath() {
    let low = [Infinity, Infinity];
    let high = [-Infinity, -Infinity];
    for (const path of [commandedPath, actualPath]) {
      if (!path) continue;
      for (let i = 0; i < path.x.length; ++i) {
        low = [Math.min(low[0], path.x[i]), Math.min(low[1], path.y[i])];
        high = [Math.max(high[0], path.x[i]), Math.max(high[1], path.y[i])];
      }
    }
    if (!(high[0] >= low[0])) { low = [-1, -1]; high = [1, 1]; }
    const width = canvas.clientWidth || 600;
    const height = canvas.clientHeight || 600;
    xy.centerX = (low[0] + high[0]) / 2;
    xy.centerY = (low[1] + high[1]) / 2;
    xy.scale = 0.9 * Math.min(width / Math.max(high[0] - low[0], 1), height / Math.max(high[1] - low[1], 1));
  }

  const toScreenX = (x) => canvas.clientWidth / 2 + (x - xy.centerX) * xy.scale;
  const toScreenY = (y) => canvas.clientHeight / 2 - (y - xy.centerY) * xy.scale;

  // A step of about `pixels` on screen, rounded to 1, 2 or 5 times a power of ten.
  function niceStep(pixels) {
    const raw = pixels / xy.scale;
    const power = Math.pow(10, Math.floor(Math.log10(raw)));
    return [1, 2, 5, 10].map((f) => f * power).find((step) => step >= raw);
  }

  function drawGrid(context, width, height) {
    const step = niceStep(90);
    const left = xy.centerX - width / 2 / xy.scale;
    const bottom = xy.centerY - height / 2 / xy.scale;
    context.strokeStyle = '#eceff3';
    context.fillStyle = '#5b6673';
    context.font = '11px sans-serif';
    context.lineWidth = 1;
    const label = (v) => String(+(v * positionScale).toPrecision(6));
    for (let x = Math.ceil(left / step) * step; x < left + width / xy.scale; x += step) {
      const sx = Math.round(toScreenX(x)) + 0.5;
      context.beginPath(); context.moveTo(sx, 0); context.lineTo(sx, height); context.stroke();
      context.fillText(label(x), sx + 2, height - 4);
    }
    for (let y = Math.ceil(bottom / step) * step; y < bottom + height / xy.scale; y += step) {
      const sy = Math.round(toScreenY(y)) + 0.5;
      context.beginPath(); context.moveTo(0, sy); context.lineTo(width, sy); context.stroke();
      context.fillText(label(y), 3, sy - 3);
    }
    context.fillText(positionUnit, width - 40, 14);
  }

  function strokePath(context, path, from, to, style) {
    if (to - from < 2) return;
    context.beginPath();
    context.moveTo(toScreenX(path.x[from]), toScreenY(path.y[from]));
    for (let i = from + 1; i < to; ++i) context.lineTo(toScreenX(path.x[i]), toScreenY(path.y[i]));
    context.strokeStyle = style;
    context.stroke();
  }

  function drawPath() {
    const ratio = window.devicePixelRatio || 1;
    const width = canvas.clientWidth;
    const height = canvas.clientHeight;
    if (canvas.width !== Math.round(width * ratio) || canvas.height !== Math.round(height * ratio)) {
      canvas.width = Math.round(width * ratio);
      canvas.height = Math.round(height * ratio);
    }
    const context = canvas.getContext('2d');
    context.setTransform(ratio, 0, 0, ratio, 0, 0);
    context.clearRect(0, 0, width, height);
    drawGrid(context, width, height);
    context.lineJoin = 'round';
    if (commandedPath) {
      context.lineWidth = 1;
      strokePath(context, commandedPath, 0, commandedPath.t.length, '#8a939e');
    }
    if (actualPath) {
      const zoomed = view[1] - view[0] < (endUs - startUs) * 0.999;
      if (zoomed) {
        context.lineWidth = 7;
        context.globalAlpha = 0.35;
        const first = Math.max(0, lowerBound(actualPath.t, view[0]) - 1);
        strokePath(context, actualPath, first, Math.min(actualPath.t.length, lowerBound(actualPath.t, view[1]) + 1),
          '#ff9800');
        context.globalAlpha = 1;
      }
      // Runs of segments with the laser on, then off, each as one stroke.
      for (let i = 1; i < actualPath.t.length;) {
        const on = laserOn[i - 1] && laserOn[i];
        let j = i + 1;
        while (j < actualPath.t.length && (laserOn[j - 1] && laserOn[j]) === on) ++j;
        context.lineWidth = on ? 1.8 : 1;
        context.setLineDash(on ? [] : [5, 3]);
        strokePath(context, actualPath, i - 1, j, on ? '#c62828' : '#1e6fd9');
        i = j;
      }
      context.setLineDash([]);
    }
    // Numbers of the marks at their start, where there are few enough to read.
    const numbered = commandedPath || actualPath;
    if (numbered && marks.length <= 400) {
      context.font = 'bold 12px sans-serif';
      for (let m = 0; m < marks.length; ++m) {
        const i = Math.min(numbered.t.length - 1, lowerBound(numbered.t, marks[m].start_us));
        const x = toScreenX(numbered.x[i]);
        const y = toScreenY(numbered.y[i]);
        if (x < 0 || y < 0 || x > width || y > height) continue;
        context.fillStyle = '#1d232b';
        context.beginPath(); context.arc(x, y, 3, 0, 2 * Math.PI); context.fill();
        context.fillStyle = '#ffffff';
        context.fillRect(x + 4, y - 16, 8 * String(m + 1).length + 4, 14);
        context.fillStyle = '#1d232b';
        context.fillText(String(m + 1), x + 6, y - 5);
      }
    }
  }

  function describePath() {
    const note = document.getElementById('xy-note');
    if (!actualPath && !commandedPath) {
      note.textContent = 'No path: the positions of head ' + data.head + ' are not in this capture.';
      return;
    }
    const path = actualPath || commandedPath;
    note.textContent = 'Drawn from ' + path.t.length.toLocaleString('en') + ' of ' +
      path.samples.toLocaleString('en') + ' samples: each at least ' + length(path.distance) +
      ' from the one before, and the samples around each gate edge.';
  }

  let drag = null;
  canvas.addEventListener('mousedown', (event) => {
    drag = { x: event.clientX, y: event.clientY, centerX: xy.centerX, centerY: xy.centerY };
    canvas.style.cursor = 'grabbing';
  });
  window.addEventListener('mousemove', (event) => {
    if (!drag) return;
    xy.centerX = drag.centerX - (event.clientX - drag.x) / xy.scale;
    xy.centerY = drag.centerY + (event.clientY - drag.y) / xy.scale;
    drawPath();
  });
  window.addEventListener('mouseup', () => {
    if (drag) { drag = null; canvas.style.cursor = ''; }
    // A pan of a time plot has ended: the plots get the data for the window now in view.
    if (applied && (view[0] !== applied[0] || view[1] !== applied[1])) setWindow(view[0], view[1]);
  });
  canvas.addEventListener('wheel', (event) => {
    event.preventDefault();
    const rect = canvas.getBoundingClientRect();
    const factor = event.deltaY < 0 ? 1.25 : 0.8;
    const x = xy.centerX + (event.clientX - rect.left - rect.width / 2) / xy.scale;
    const y = xy.centerY - (event.clientY - rect.top - rect.height / 2) / xy.scale;
    xy.scale *= factor;
    xy.centerX = x - (x - xy.centerX) / factor;
    xy.centerY = y - (y - xy.centerY) / factor;
    drawPath();
  }, { passive: false });
  canvas.addEventListener('dblclick', () => { fitPath(); drawPath(); });

  // Wheel over a time plot: zoom in time around the pointer.
  function zoomOnWheel(plot) {
    plot.div.addEventListener('wheel', (event) => {
      event.preventDefault();
      const rect = plot.div.getBoundingClientRect();
      const t = plot.graph.toDataXCoord(event.clientX - rect.left);
      const factor = event.deltaY < 0 ? 0.8 : 1.25;
      setWindow(t - (t - view[0]) * factor, t + (view[1] - t) * factor);
    }, { passive: false });
  }

  // ---- tables ----------------------------------------------------------------------------------------------------
  const worst = new Set(data.worstMarks);
  let selected = null;
  function zoomTo(row, a, b) {
    const pad = Math.max((b - a) * 0.25, 200);
    setWindow(a - pad, b + pad);
    if (selected) selected.classList.remove('selected');
    selected = row;
    row.classList.add('selected');
    const rect = document.getElementById('plots').getBoundingClientRect();
    if (rect.bottom < 0 || rect.top > window.innerHeight) document.getElementById('plots').scrollIntoView();
  }

  const markRows = tableRows(document.getElementById('marks'),
    ['#', 'gate on µs', 'gate off µs', 'length', 'speed', 'laser on µs', 'laser off µs', 'max following error'],
    marks.map((mark, i) => [String(i + 1), fixed(mark.start_us, 1), fixed(mark.end_us, 1), length(mark.length),
      speed(mark.speed), signed(mark.laser_on_offset_us, 1), signed(mark.laser_off_offset_us, 1),
      error(data.markErrors[i])]));
  markRows.forEach((row, i) => {
    if (worst.has(i)) row.classList.add('worst');
    row.addEventListener('click', () => zoomTo(row, marks[i].start_us, marks[i].end_us));
  });

  document.getElementById('jumps-hint').textContent = 'Each commanded motion with the laser off. Settle time: from ' +
    'the end of the commanded jump until the mirror stays within ' + length(data.settleBand) + ' of the target. ' +
    'Highlighted: the jumps that had not settled when the next motion began. Click a row to zoom the plots to it.';
  const jumpRows = tableRows(document.getElementById('jumps'),
    ['#', 'start µs', 'end µs', 'length', 'settle µs', 'settled'],
    jumps.map((jump, i) => [String(i + 1), fixed(jump.start_us, 1), fixed(jump.end_us, 1), length(jump.length),
      fixed(jump.settle_us, 1),
      !settlingKnown ? '–' : jump.settled ? 'yes' : cutShort.has(i) ? '(end)' : 'NO']));
  jumpRows.forEach((row, i) => {
    if (settlingKnown && !jumps[i].settled && !cutShort.has(i)) row.classList.add('unsettled');
    const jump = jumps[i];
    const end = jump.end_us + (known(jump.settle_us) ? jump.settle_us : 0);
    row.addEventListener('click', () => zoomTo(row, jump.start_us, end));
  });

  // ---- drawing -----------------------------------------------------------------------------------------------------
  let laserPlot = null;
  let rightGap = 5;
  const box = (node) => {
    const rect = node.getBoundingClientRect();
    return [Math.round(rect.left + window.scrollX), Math.round(rect.top + window.scrollY), Math.round(rect.width),
      Math.round(rect.height)];
  };

  function draw() {
    // The laser plot's second axis narrows its plot area; the others leave the same room, so that times line up.
    laserPlot = makeLaserPlot();
    if (laserPlot) rightGap = 5 + Math.max(0, laserPlot.div.clientWidth - 5 - (laserPlot.graph.getArea().x +
      laserPlot.graph.getArea().w));
    const head = 'Head' + data.head;
    const names = data.names;
    makePlot('plot-x', head + ' X: commanded and actual', ['cx', 'ax'], ['commanded ' + names.cx, 'actual ' + names.ax],
      ['#8a939e', '#1e6fd9'], positionScale, 'X (' + positionUnit + ')', false);
    makePlot('plot-y', head + ' Y: commanded and actual', ['cy', 'ay'], ['commanded ' + names.cy, 'actual ' + names.ay],
      ['#8a939e', '#2e7d32'], positionScale, 'Y (' + positionUnit + ')', false);
    makePlot('plot-error', 'Following error: actual minus commanded shifted by the tracking error', ['fx', 'fy'],
      ['error X', 'error Y'], ['#1e6fd9', '#2e7d32'], errorScale, 'error (' + errorUnit + ')', false);
    for (const plot of allPlots()) zoomOnWheel(plot);
    findLaserOn();
    fitPath();
    applied = view.slice();
    document.getElementById('made-by').textContent = 'Made by ' + data.tool + ' report from ' + data.source +
      '. Figures from all ' + data.events.toLocaleString('en') + ' events' + (levels.length > 0 &&
      !levels[levels.length - 1].times ? '; the plots are thinned for display only.' : '.');
    // A window in the address (report.html#t=FROM,TO in µs) opens the page on it.
    const opened = /^#t=([-\d.e]+),([-\d.e]+)$/.exec(window.location.hash);
    if (opened) setWindow(Number(opened[1]), Number(opened[2]));
    drawPath();
    describePath();
    describeDetail();
    window.addEventListener('resize', () => { drawPath(); });

    verdict.state = 'drawn';
    verdict.loadMs = Math.round(performance.now());
    verdict.boxes = { xy: box(canvas) };
    for (const plot of allPlots()) verdict.boxes[plot.div.id] = box(plot.div);
    // The range of each series at the finest level, to compare with the capture.
    verdict.ranges = {};
    const finest = levels.length > 0 ? levels[levels.length - 1].values : {};
    for (const id of Object.keys(finest)) {
      let low = Infinity;
      let high = -Infinity;
      for (const v of finest[id]) if (!Number.isNaN(v)) { low = Math.min(low, v); high = Math.max(high, v); }
      verdict.ranges[id] = [low, high];
    }
    showVerdict();
  }

  unpackAll().then(draw).catch((failure) => { errors.push(String(failure && failure.stack || failure)); showVerdict(); });
})();
