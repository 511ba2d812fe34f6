// The report page's script. It reads the trace's data (the element trace-data, written by oltb report), fills the
// tables, draws the XY path and the close-ups on canvases of its own and the time plots with dygraphs, and keeps
// them on one time window: zooming one time plot zooms the others, and the XY path draws the part in view wider.
//
// Everything is drawn while the page loads (the numbers are unpacked synchronously), so that a page printed at
// once has its plots; before printing, every plot is drawn again at the width of the paper.
//
// The time series come on several grids of columns, each column holding the smallest and largest sample in the
// order they came, and possibly as the samples themselves. For the window in view the plots take the coarsest grid
// that still gives two points per pixel, and the overview for the rest of the trace.
// When everything has drawn, the element verdict tells (as JSON) what drew, where the texts of each plot stand, any
// script errors, and the time taken: the browser test reads it.
'use strict';

(function () {
  const errors = [];
  const verdict = { state: 'loading', errors: errors };
  const showVerdict = () => { document.getElementById('verdict').textContent = JSON.stringify(verdict); };
  window.addEventListener('error', (event) => { errors.push(String(event.message)); showVerdict(); });

  const data = JSON.parse(document.getElementById('trace-data').textContent);
  const result = data.analysis;
  const marks = result.marks;
  const jumps = result.jumps;
  const unitsPerMm = data.unitsPerMm > 0 ? data.unitsPerMm : 0;
  const startUs = data.startUs;
  const endUs = data.startUs + data.durationUs;

  const { unpack, known, fixed, us, wholeUs, ms, share, doseOf, dose, median, lowerBound, element, tableRows, byId,
    box, niceTicks, prepare, text, drawFigure, marker, verticalLine, unpackSamples, pointAt } = OltbPage;
  const { length, small, smallScale, smallUnit, speed, speedScale, speedUnit, positionScale, positionUnit } =
    OltbPage.units(unitsPerMm);
  const maxDose = result.max_edge_dose;

  // ---- header: warnings, settings, trade-offs, figures -------------------------------------------------------------
  const lost = data.signals.reduce((sum, signal) => sum + signal.lost, 0);
  byId('source').textContent = data.source + ' — head ' + data.head;

  const warnings = result.warnings.slice();
  if (lost > 0) warnings.push(lost + ' events were lost (the server\'s buffer overflowed); figures near them are less sure.');
  if (warnings.length > 0) {
    byId('warnings').hidden = false;
    for (const text of warnings) byId('warning-list').appendChild(element('li', text));
  }

  const settingNames = [['laser_on_delay_us', 'Laser-on delay'], ['laser_off_delay_us', 'Laser-off delay'],
    ['jump_delay_us', 'Jump delay'], ['mark_delay_us', 'Mark delay'], ['polygon_delay_us', 'Polygon delay']];
  tableRows(byId('settings'), ['setting', 'now', 'suggested', 'why'], settingNames.map(([key, name]) => {
    const setting = result.settings[key];
    return [name, us(setting.now), wholeUs(setting.suggested), setting.why || ''];
  })).forEach((row, i) => {
    const setting = result.settings[settingNames[i][0]];
    if (known(setting.suggested) && !(known(setting.now) && Math.abs(setting.now - setting.suggested) < 1)) {
      row.cells[2].classList.add('change');
    }
  });
  const speedList = (values) => (values.length ? values.map(speed).join(', ') : '–');
  byId('speeds').textContent = 'Mark speed ' + speedList(result.speeds.mark_units_per_ms) + '; jump speed ' +
    speedList(result.speeds.jump_units_per_ms) + '. Settle band ' + small(result.settle_band) +
    ' (oltb report --settle-band); largest edge dose ' + maxDose + '× the dose of the mark\'s body.';

  function choiceTable(table, choices, name, suggested) {
    if (choices.length === 0) return;
    const nearest = choices.reduce((best, c, i) => (known(suggested) &&
      Math.abs(c.delay_us - suggested) < Math.abs(choices[best].delay_us - suggested) ? i : best), 0);
    tableRows(table, [name, 'missing', 'edge dose'],
      choices.map((c) => [wholeUs(c.delay_us), small(c.missing), dose(c.edge_dose)]))
      .forEach((row, i) => { if (known(suggested) && i === nearest) row.classList.add('change'); });
  }
  // With --each: how much each figure moves from run to run, and the settings that hold in every run.
  if (data.repeats) {
    byId('repeats-section').hidden = false;
    byId('repeats-hint').textContent = data.repeats.runs + ' runs between the labels, each analysed alone: the ' +
      'median, the spread and the run where each figure was worst. The settings above are those of the whole ' +
      'capture; these hold in every run: ' + ['laser_on_delay_us', 'laser_off_delay_us', 'jump_delay_us',
      'mark_delay_us', 'polygon_delay_us'].map((key) => key.replace(/_us$/, '').replace(/_/g, ' ') + ' ' +
      wholeUs(data.repeats.settings[key].suggested)).join(', ') + '.';
    tableRows(byId('repeats'), ['figure', 'runs', 'median', 'min', 'max', 'std', 'worst run'],
      data.repeats.figures.map((f) => [f.figure + ' (' + f.unit + ')', String(f.runs), f.median.toFixed(2),
        f.min.toFixed(2), f.max.toFixed(2), f.std.toFixed(3), String(f.worst_run)]));
  }
  const laser = result.laser;
  if (laser.on_choices.length + laser.off_choices.length === 0) {
    byId('choices-hint').textContent = 'No choices: no mark after a settled jump had its edges measured.';
  }
  choiceTable(byId('on-choices'), laser.on_choices, 'laser-on delay', result.settings.laser_on_delay_us.suggested);
  choiceTable(byId('off-choices'), laser.off_choices, 'laser-off delay', result.settings.laser_off_delay_us.suggested);
  if (laser.by_speed.length > 0) {
    tableRows(byId('by-speed'), ['marks at', 'marks', 'laser-on', 'laser-off', 'start missing', 'end missing'],
      laser.by_speed.map((g) => [speed(g.speed), String(g.marks), wholeUs(g.laser_on_delay_us),
        wholeUs(g.laser_off_delay_us), small(g.start_missing), small(g.end_missing)]));
  }

  tableRows(byId('jump-table'), ['jumps up to', 'jump delay', 'needs at least', ''],
    result.jump_delay_table.map((row) => [length(row.up_to_length), wholeUs(row.delay_us), us(row.at_least_us),
      row.predicted ? 'predicted by the head\'s model' : known(row.delay_us) ? 'measured'
        : 'did not settle: trace with a longer jump delay']));
  if (result.jump_delay_table.length === 0) byId('jump-table-hint').textContent = 'No jump in this trace settled or could be predicted.';

  const measured = marks.filter((mark) => known(mark.start_missing) || known(mark.end_missing));
  const afterUnsettled = marks.filter((mark) => mark.after_unsettled_jump).length;
  const settled = jumps.filter((jump) => jump.settled).length;
  const cutShort = jumps.filter((jump) => jump.cut_short).length;
  const servoText = (servo) => (!known(servo.natural_frequency_hz) ? (servo.why || 'no model') :
    Math.round(servo.natural_frequency_hz) + ' Hz, damping ' + fixed(servo.damping, 2) +
    (known(servo.driver_filter_us) && servo.driver_filter_us > 0.5 ? ', driver filter ' + us(servo.driver_filter_us) : '') +
    (known(servo.max_acceleration) ? ', acceleration limit ' + Math.round(servo.max_acceleration) + ' units/ms²' : '') +
    '; misses the mirror by ' + small(servo.fit_rms) + ' rms' + (servo.fit_holds ? '' : ' (does not hold)'));
  const edgeText = (missingKey, speedKey) => {
    const speedShare = median(measured.map((mark) => mark[speedKey]));
    const missing = median(measured.map((mark) => mark[missingKey]));
    return (missing >= 0 ? small(missing) + ' not marked' : 'marks ' + small(-missing) + ' beyond') + ', mirror at ' +
      share(speedShare) + ' of the mark speed (dose ' + dose(doseOf(speedShare)) + ')';
  };
  const roundings = result.corners.map((corner) => corner.rounding).filter(known);
  const where = result.marks.length > 0 ? 'while marking' : 'over the whole trace';
  const figures = [
    ['Tracking error', 'X ' + us(result.tracking_error_us.x) + ', Y ' + us(result.tracking_error_us.y),
      'The mirror\'s steady lag behind the command at constant speed.'],
    ['Head X', servoText(result.servo.x), 'A model of the axis from command to mirror, and how well it fits.'],
    ['Head Y', servoText(result.servo.y), ''],
    ['Mark starts', measured.length ? edgeText('start_missing', 'speed_at_on') : '–',
      'Median over the marks: how much of each start the laser leaves out, and how fast the mirror moves there.'],
    ['Mark ends', measured.length ? edgeText('end_missing', 'speed_at_off') : '–', 'The same at the ends.'],
    ['Marks', marks.length + (marks.length > measured.length ? ', ' + (marks.length - measured.length) + ' not measured' : '') +
      (afterUnsettled ? ', ' + afterUnsettled + ' after a jump that did not settle' : ''), 'Each time the laser gate is on.'],
    ['Jumps', jumps.length + ', ' + settled + ' settled' + (cutShort ? ', ' + cutShort + ' cut short by the trace' : ''),
      'Settled: within ' + small(data.settleBand) + ' of the target for good before the next motion began.'],
    ['Corners', result.corners.length + (roundings.length ? ', rounded by up to ' + small(Math.max(...roundings)) : ''),
      'Rounding: the closest the mirror comes to the corner point.'],
    ['Following error', 'X rms ' + small(result.following_error.x.rms) + ', max ' + small(result.following_error.x.max) +
      '; Y rms ' + small(result.following_error.y.rms) + ', max ' + small(result.following_error.y.max),
      'Mirror minus the command shifted by the tracking error, ' + where + '.'],
    ['Path deviation', 'rms ' + small(result.path_deviation.rms) + ', max ' + small(result.path_deviation.max),
      'Distance of the mirror from the commanded path ' + where + '.'],
  ];
  for (const [name, value, meaning] of figures) {
    const row = byId('figures').insertRow();
    row.appendChild(element('th', name));
    row.appendChild(element('td', value, 'value'));
    row.appendChild(element('td', meaning, 'meaning'));
  }

  tableRows(byId('capture'), [], [
    ['Source', data.source],
    ['Duration', ms(data.durationUs)],
    ['Events', data.events.toLocaleString('en') + (lost ? ', ' + lost + ' lost' : ', none lost')],
  ]).forEach((row) => { row.cells[0].outerHTML = '<th>' + row.cells[0].textContent + '</th>'; });
  tableRows(byId('signals'), ['signal', 'events', 'lost'],
    data.signals.map((signal) => [signal.name, signal.events.toLocaleString('en'), String(signal.lost)]));
  if (data.missing.length > 0) {
    byId('missing').appendChild(element('strong', 'Not measured'));
    const list = byId('missing').appendChild(element('ul'));
    for (const item of data.missing) list.appendChild(element('li', item));
  }

  // ---- the trace's data ------------------------------------------------------------------------------------------
  const unpackValues = (packed) => {
    const values = {};
    for (const id of Object.keys(packed)) values[id] = unpack(packed[id], Float32Array);
    return values;
  };
  const levels = data.levels.map((level) => (level.times
    ? { times: unpack(level.times), values: unpackValues(level.values) }
    : { start: level.start, step: level.step, columns: level.columns, values: unpackValues(level.values) }));
  const unpackPath = (path) => (path ? { t: unpack(path.t), x: unpack(path.x), y: unpack(path.y),
    samples: path.samples, distance: path.distance } : null);
  const commandedPath = unpackPath(data.path.commanded);
  const actualPath = unpackPath(data.path.actual);
  const laserLines = [data.power, data.gate].filter((line) => line).map((line) => ({
    name: line.name, gate: line === data.gate, t: unpack(line.t), v: unpack(line.v, Float32Array) }));
  const markStarts = Float64Array.from(marks, (mark) => mark.start_us);
  const labels = data.labels;
  const labelTimes = Float64Array.from(labels, (label) => label.t);

  // ---- time plots ------------------------------------------------------------------------------------------------
  const plots = [];
  let laserPlot = null;
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
        const x = graph.toDomXCoord(labels[i].t);
        canvas.beginPath();
        canvas.moveTo(x, area.y);
        canvas.lineTo(x, area.y + area.h);
        canvas.stroke();
        canvas.fillText(String(labels[i].label), x + 2, area.y + 11);
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
  // Values with numbers on every axis: dygraphs' own ticker can leave a wide range with a lone "0".
  // None in the lowest 8 pixels, where the number would run into the first time tick's.
  const yAxis = { axisLabelWidth: 58, ticker: (low, high, pixels) =>
    niceTicks(low, high, pixels / 32).filter((tick) => (tick.v - low) / (high - low) * pixels >= 8) };
  const plotOptions = {
    legend: 'always', labelsSeparateLines: false, connectSeparatedPoints: true, strokeWidth: 1.2, xRangePad: 0,
    animatedZooms: false, axisLabelFontSize: 12, yLabelWidth: 16, underlayCallback: underlay,
    zoomCallback: (a, b) => { if (!syncing) setWindow(a, b); },
    drawCallback: (graph, initial) => followPan(graph, initial),
  };

  function makePlot(id, title, ids, names, colors, scale, unit, rightGap) {
    const present = ids.filter((series) => levels.length > 0 && levels[0].values[series]);
    const div = byId(id);
    if (present.length === 0) {
      div.hidden = true;
      return;
    }
    const plot = { div: div, ids: present, scales: present.map(() => scale) };
    plot.graph = new Dygraph(div, rowsFor(plot, view[0], view[1]), Object.assign({}, plotOptions, {
      labels: ['time'].concat(present.map((series) => names[ids.indexOf(series)])),
      colors: present.map((series) => colors[ids.indexOf(series)]),
      title: title, ylabel: unit, rightGap: rightGap, axes: { x: xAxis, y: yAxis }, dateWindow: view.slice(),
    }));
    plots.push(plot);
  }

  // The laser: gate and power as steps, from their changes; with the power beside it, the gate on an axis of its own.
  function makeLaserPlot() {
    const div = byId('plot-laser');
    if (laserLines.length === 0) {
      div.hidden = true;
      return null;
    }
    const rows = [];
    const next = laserLines.map(() => 0);
    const latest = laserLines.map(() => null);
    for (;;) {
      let t = Infinity;
      laserLines.forEach((line, s) => { if (next[s] < line.t.length) t = Math.min(t, line.t[next[s]]); });
      if (t === Infinity) break;
      rows.push([t].concat(laserLines.map((line, s) => {
        if (next[s] >= line.t.length || line.t[next[s]] !== t) return null;
        latest[s] = line.v[next[s]++];
        return latest[s];
      })));
    }
    if (rows.length > 0 && rows[rows.length - 1][0] < endUs) rows.push([endUs].concat(latest));
    const twoAxes = laserLines.length === 2;
    const gate = laserLines.find((line) => line.gate);
    const gateSeries = gate ? { [gate.name]: twoAxes ? { axis: 'y2', fillGraph: true } : { fillGraph: true } } : {};
    const gateAxis = { valueRange: [-0.05, 1.4], independentTicks: true, drawGrid: false, axisLabelWidth: 40,
      ticker: () => [{ v: 0, label: '0' }, { v: 1, label: '1' }] };
    const graph = new Dygraph(div, rows, Object.assign({}, plotOptions, {
      labels: ['time'].concat(laserLines.map((line) => line.name)),
      colors: laserLines.map((line) => (line.gate ? '#e0a100' : '#c62828')),
      title: 'Laser: ' + laserLines.map((line) => line.name).join(' and '),
      ylabel: laserLines[0].gate ? 'gate' : 'power', y2label: twoAxes ? 'gate' : undefined,
      xlabel: 'time from the start of the capture', stepPlot: true, series: gateSeries,
      axes: twoAxes ? { x: xAxis, y: yAxis, y2: gateAxis } : { x: xAxis, y: laserLines[0].gate ? gateAxis : yAxis },
      dateWindow: view.slice(),
    }));
    return { div: div, graph: graph };
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

  function describeDetail() {
    const note = byId('time-note');
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

  const drawings = new Map();
  function draw(canvas, paint) {
    drawings.set(canvas.id, { canvas: canvas, paint: paint, drawn: paint() });
  }
  // Every plot drawn again at its size now.
  function redrawAll() {
    for (const plot of allPlots()) plot.graph.resize();
    for (const drawing of drawings.values()) drawing.drawn = drawing.paint();
  }

  // ---- XY path ---------------------------------------------------------------------------------------------------
  const xyCanvas = byId('xy');
  const xy = { scale: 1, centerX: 0, centerY: 0, width: 0 };  // width: of the canvas the scale was set for
  // Whether the laser gate is on at each point of the actual path.
  const laserOn = actualPath ? new Uint8Array(actualPath.t.length) : null;
  if (actualPath) {
    for (let i = 0, m = 0; i < actualPath.t.length; ++i) {
      while (m < marks.length && marks[m].end_us < actualPath.t[i]) ++m;
      laserOn[i] = m < marks.length && marks[m].start_us <= actualPath.t[i] ? 1 : 0;
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
    xy.centerX = (low[0] + high[0]) / 2;
    xy.centerY = (low[1] + high[1]) / 2;
    xy.width = xyCanvas.clientWidth;
    xy.scale = 0.9 * Math.min((xyCanvas.clientWidth || 600) / Math.max(high[0] - low[0], 1),
      (xyCanvas.clientHeight || 600) / Math.max(high[1] - low[1], 1));
  }

  const toScreenX = (x) => xyCanvas.clientWidth / 2 + (x - xy.centerX) * xy.scale;
  const toScreenY = (y) => xyCanvas.clientHeight / 2 - (y - xy.centerY) * xy.scale;

  // Grid lines about 90 pixels apart with their numbers: x along the bottom, y along the left, none in the corner.
  function drawGrid(context, width, height, boxes) {
    // In the units shown (mm or head units), at screen positions of head units.
    const ticks = (center, half) => niceTicks((center - half) * positionScale, (center + half) * positionScale,
      Math.max(1, 2 * half * xy.scale / 90)).map((tick) => ({ at: tick.v / positionScale, label: tick.label }));
    context.strokeStyle = '#eceff3';
    context.fillStyle = '#5b6673';
    context.lineWidth = 1;
    for (const tick of ticks(xy.centerX, width / 2 / xy.scale)) {
      const sx = Math.round(toScreenX(tick.at)) + 0.5;
      context.beginPath(); context.moveTo(sx, 0); context.lineTo(sx, height); context.stroke();
      if (sx > 60 && sx < width - 60) text(context, boxes, 'x', tick.label, sx, height - 5, 'center');
    }
    for (const tick of ticks(xy.centerY, height / 2 / xy.scale)) {
      const sy = Math.round(toScreenY(tick.at)) + 0.5;
      context.beginPath(); context.moveTo(0, sy); context.lineTo(width, sy); context.stroke();
      if (sy > 24 && sy < height - 24) text(context, boxes, 'y', tick.label, 4, sy - 3, 'left');
    }
    text(context, boxes, 'title', positionUnit, width - 6, 14, 'right');
  }

  function strokePath(context, path, from, to, style) {
    if (to - from < 2) return;
    context.beginPath();
    context.moveTo(toScreenX(path.x[from]), toScreenY(path.y[from]));
    for (let i = from + 1; i < to; ++i) context.lineTo(toScreenX(path.x[i]), toScreenY(path.y[i]));
    context.strokeStyle = style;
    context.stroke();
  }

  function paintPath() {
    const { context, width, height } = prepare(xyCanvas);
    if (xy.width > 0 && width > 0) xy.scale *= width / xy.width;  // a new size of the canvas shows the same
    xy.width = width;
    const boxes = [];
    drawGrid(context, width, height, boxes);
    context.lineJoin = 'round';
    if (commandedPath) {
      context.lineWidth = 1;
      strokePath(context, commandedPath, 0, commandedPath.t.length, '#8a939e');
    }
    if (actualPath) {
      if (view[1] - view[0] < (endUs - startUs) * 0.999) {
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
    return { boxes: boxes, points: actualPath ? actualPath.t.length : 0 };
  }

  function drawPath() {
    if (drawings.has('xy')) drawings.get('xy').drawn = paintPath();
  }

  function describePath() {
    const note = byId('xy-note');
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
  xyCanvas.addEventListener('mousedown', (event) => {
    drag = { x: event.clientX, y: event.clientY, centerX: xy.centerX, centerY: xy.centerY };
    xyCanvas.style.cursor = 'grabbing';
  });
  window.addEventListener('mousemove', (event) => {
    if (!drag) return;
    xy.centerX = drag.centerX - (event.clientX - drag.x) / xy.scale;
    xy.centerY = drag.centerY + (event.clientY - drag.y) / xy.scale;
    drawPath();
  });
  window.addEventListener('mouseup', () => {
    if (drag) { drag = null; xyCanvas.style.cursor = ''; }
    // A pan of a time plot has ended: the plots get the data for the window now in view.
    if (applied && (view[0] !== applied[0] || view[1] !== applied[1])) setWindow(view[0], view[1]);
  });
  xyCanvas.addEventListener('wheel', (event) => {
    event.preventDefault();
    const rect = xyCanvas.getBoundingClientRect();
    const factor = event.deltaY < 0 ? 1.25 : 0.8;
    const x = xy.centerX + (event.clientX - rect.left - rect.width / 2) / xy.scale;
    const y = xy.centerY - (event.clientY - rect.top - rect.height / 2) / xy.scale;
    xy.scale *= factor;
    xy.centerX = x - (x - xy.centerX) / factor;
    xy.centerY = y - (y - xy.centerY) / factor;
    drawPath();
  }, { passive: false });
  xyCanvas.addEventListener('dblclick', () => { fitPath(); drawPath(); });

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

  // ---- close-ups of the mark edges: where the laser starts and stops on the part -------------------------------
  const markCloseUps = new Map(data.markCloseUps.map((closeUp) => [closeUp.mark, {
    start: closeUp.start && Object.assign({}, closeUp.start, {
      mirror: unpackSamples(closeUp.start.mirror), command: unpackSamples(closeUp.start.command) }),
    end: closeUp.end && Object.assign({}, closeUp.end, {
      mirror: unpackSamples(closeUp.end.mirror), command: unpackSamples(closeUp.end.command) }),
  }]));

  // One edge of a mark in the mark's own frame: along it from the commanded start (end) point, and across it, in µm
  // (or units), on equal scales. The mirror's samples are dots 10 µs apart (as the card samples): where they crowd,
  // the mirror is slow and the laser gives more dose.
  function paintEdge(canvas, mark, edge, start) {
    const [px, py] = edge.point;
    const [dx, dy] = edge.direction;
    const along = (p) => ((p[0] - px) * dx + (p[1] - py) * dy) * smallScale;
    const across = (p) => ((p[1] - py) * dx - (p[0] - px) * dy) * smallScale;
    const gate = pointAt(edge.mirror, edge.gate_us);
    const setting = result.settings[start ? 'laser_on_delay_us' : 'laser_off_delay_us'];
    const suggested = known(setting.suggested) ? pointAt(edge.mirror, edge.command_us + setting.suggested) : null;
    const shown = [0].concat([gate, suggested].filter((p) => p).map(along));
    const low = Math.min(...shown);
    const high = Math.max(...shown);
    const pad = Math.max(0.6 * (high - low), 0.05 * mark.speed * smallScale, result.settle_band * smallScale / 4);
    const under = (t) => (start ? t >= edge.gate_us : t <= edge.gate_us);
    return drawFigure(canvas, {
      x: { low: low - pad, high: high + pad, title: 'along the mark from its ' + (start ? 'start' : 'end') + ' (' + smallUnit + ')' },
      y: { equal: true, atLeast: 1.2 * Math.max(0, ...[gate, suggested].filter((p) => p).map((p) => Math.abs(across(p)))),
        title: 'across (' + smallUnit + ')' },
      paint: (context, sx, sy) => {
        const screen = (samples, i) => [sx(along([samples.x[i], samples.y[i]])), sy(across([samples.x[i], samples.y[i]]))];
        context.lineWidth = 2;
        context.strokeStyle = '#aab2bc';
        context.beginPath();
        for (let i = 0; i < edge.command.t.length; ++i) context.lineTo(...screen(edge.command, i));
        context.stroke();
        if (gate) {  // the part of the mark the laser leaves out (or marks beyond the commanded point)
          context.fillStyle = 'rgba(255, 152, 0, 0.45)';
          const [from, to] = [sx(0), sx(along(gate))].sort((a, b) => a - b);
          context.fillRect(from, sy(0) - 5, Math.max(to - from, 1), 10);
        }
        context.lineWidth = 1;
        for (let i = 1; i < edge.mirror.t.length; ++i) {
          context.strokeStyle = under(edge.mirror.t[i]) && under(edge.mirror.t[i - 1]) ? '#c62828' : '#1e6fd9';
          context.beginPath();
          context.moveTo(...screen(edge.mirror, i - 1));
          context.lineTo(...screen(edge.mirror, i));
          context.stroke();
        }
        for (let i = 0; i < edge.mirror.t.length; ++i) {
          const on = under(edge.mirror.t[i]);
          context.fillStyle = on ? '#c62828' : '#1e6fd9';
          context.beginPath();
          context.arc(...screen(edge.mirror, i), on ? 2.4 : 1.5, 0, 2 * Math.PI);
          context.fill();
        }
        marker(context, sx(0), sy(0), 'point');
        if (suggested) marker(context, sx(along(suggested)), sy(across(suggested)), 'suggested');
        if (gate) marker(context, sx(along(gate)), sy(across(gate)), 'gate');
        return edge.mirror.t.length;
      },
    });
  }

  function edgeCaption(mark, start) {
    const missing = start ? mark.start_missing : mark.end_missing;
    const speedShare = start ? mark.speed_at_on : mark.speed_at_off;
    const where = start ? 'before the start point' : 'past the end point';
    const lengthText = !known(missing) ? 'not measured' : missing >= 0 ? small(missing) + ' not marked'
      : 'marks ' + small(-missing) + ' ' + where;
    return (start ? 'Gate on: ' : 'Gate off: ') + lengthText + '; the mirror at ' + share(speedShare) +
      ' of the mark speed, dose ' + dose(doseOf(speedShare)) + '.';
  }

  const edgeGallery = { shown: [], selected: null };
  function fillEdgeGallery() {
    const gallery = byId('edges');
    for (const id of Array.from(drawings.keys())) if (id.startsWith('edge-')) drawings.delete(id);
    gallery.textContent = '';
    const chosen = data.markOrder.filter((i) => markCloseUps.has(i)).slice(0, 6);
    if (edgeGallery.selected !== null && !chosen.includes(edgeGallery.selected)) chosen.unshift(edgeGallery.selected);
    for (const i of chosen) {
      const mark = marks[i];
      const card = gallery.appendChild(element('div', undefined, 'card' + (i === edgeGallery.selected ? ' selected' : '')));
      card.appendChild(element('h3', 'Mark ' + (i + 1) + ' · gate on at ' + ms(mark.start_us - startUs) + ' · ' +
        speed(mark.speed) + (mark.after_unsettled_jump ? ' · after a jump that did not settle' : '')));
      const closeUp = markCloseUps.get(i);
      if (!closeUp) {
        card.appendChild(element('p', 'The page holds the samples of the ' + markCloseUps.size + ' worst marks only.', 'note'));
        continue;
      }
      const pair = card.appendChild(element('div', undefined, 'pair'));
      for (const start of [true, false]) {
        const figure = pair.appendChild(element('figure'));
        const edge = start ? closeUp.start : closeUp.end;
        if (edge) {
          const canvas = figure.appendChild(element('canvas', undefined, 'closeup'));
          canvas.id = 'edge-' + (start ? 'start-' : 'end-') + i;
          draw(canvas, () => paintEdge(canvas, mark, edge, start));
        }
        figure.appendChild(element('figcaption', edgeCaption(mark, start)));
      }
    }
    const measuredCount = data.markOrder.length;
    byId('edges-hint').textContent = (measuredCount === 0 ? 'No mark had its edges measured. '
      : 'The ' + Math.min(6, measuredCount) + ' worst of ' + measuredCount + ' measured marks: the largest missing ' +
        'length at an edge and the largest edge dose, in turn. ') +
      (markCloseUps.size < measuredCount ? 'The page holds the samples of the ' + markCloseUps.size + ' worst. ' : '') +
      'Click a mark in the table of marks to see it here.';
  }

  // ---- close-ups of the jumps: distance to the target against the settle band --------------------------------------
  const jumpCloseUps = new Map(data.jumpCloseUps.filter((closeUp) => closeUp.t).map((closeUp) => [closeUp.jump,
    Object.assign({}, closeUp, { t: unpack(closeUp.t), distance: unpack(closeUp.distance) })]));

  function paintJump(canvas, jump, closeUp) {
    const band = result.settle_band * smallScale;
    const last = closeUp.t.length ? closeUp.t[closeUp.t.length - 1] - closeUp.end_us : 1;
    let farthest = band * 10;
    for (const d of closeUp.distance) farthest = Math.max(farthest, d * smallScale * 1.5);
    const next = known(closeUp.next_us) ? closeUp.next_us - closeUp.end_us : null;
    return drawFigure(canvas, {
      x: { low: 0, high: Math.max(last, 1), title: 'µs after the end of the commanded jump' },
      y: { low: band / 20, high: farthest, log: true, title: 'to target (' + smallUnit + ')' },
      paint: (context, sx, sy, boxes) => {
        context.fillStyle = 'rgba(46, 125, 50, 0.12)';
        context.fillRect(sx(0), sy(band), sx(last) - sx(0), sy(band / 20) - sy(band));
        context.strokeStyle = '#2e7d32';
        context.setLineDash([5, 3]);
        context.beginPath(); context.moveTo(sx(0), sy(band)); context.lineTo(sx(last), sy(band)); context.stroke();
        context.setLineDash([]);
        context.strokeStyle = '#1e6fd9';
        context.lineWidth = 1.4;
        context.beginPath();
        for (let i = 0; i < closeUp.t.length; ++i) context.lineTo(sx(closeUp.t[i] - closeUp.end_us), sy(closeUp.distance[i] * smallScale));
        context.stroke();
        if (known(jump.predicted_settle_us) && !jump.settled) {
          verticalLine(context, boxes, sx, sy, jump.predicted_settle_us, '#7b1fa2', [2, 3], 'predicted', false);
        }
        if (next !== null) {
          verticalLine(context, boxes, sx, sy, next, jump.settled ? '#2e7d32' : '#c62828', [], 'next motion', true);
        }
        return closeUp.t.length;
      },
    });
  }

  function jumpCaption(jump) {
    const waited = known(jump.delay_us) ? ' after ' + wholeUs(jump.delay_us) + ' of jump delay' : '';
    if (jump.cut_short) return 'The trace ends before the next motion: not decided.';
    if (jump.settled) return 'Settled ' + wholeUs(jump.settle_us) + ' after the end of the command' + (waited ? ', of ' + wholeUs(jump.delay_us) + ' waited.' : '.');
    return 'Not settled: ' + small(jump.distance_at_next) + ' from the target when the next motion began' + waited + '; ' +
      (known(jump.predicted_settle_us) ? 'needs about ' + wholeUs(jump.predicted_settle_us) + ' (predicted).' : 'needs more than ' + wholeUs(jump.at_least_us) + '.');
  }

  const jumpGallery = { selected: null };
  function fillJumpGallery() {
    const gallery = byId('settling');
    for (const id of Array.from(drawings.keys())) if (id.startsWith('jump-')) drawings.delete(id);
    gallery.textContent = '';
    const chosen = data.jumpOrder.filter((i) => jumpCloseUps.has(i) && !jumps[i].cut_short).slice(0, 6);
    if (jumpGallery.selected !== null && !chosen.includes(jumpGallery.selected)) chosen.unshift(jumpGallery.selected);
    for (const i of chosen) {
      const jump = jumps[i];
      const card = gallery.appendChild(element('div', undefined, 'card' + (i === jumpGallery.selected ? ' selected' : '')));
      card.appendChild(element('h3', 'Jump ' + (i + 1) + ' · ' + length(jump.length) + ' · ends at ' + ms(jump.end_us - startUs)));
      const closeUp = jumpCloseUps.get(i);
      if (closeUp) {
        const canvas = card.appendChild(element('canvas', undefined, 'closeup'));
        canvas.id = 'jump-' + i;
        draw(canvas, () => paintJump(canvas, jump, closeUp));
      } else {
        card.appendChild(element('p', 'The page holds the samples of the ' + jumpCloseUps.size + ' worst jumps only.', 'note'));
      }
      card.appendChild(element('p', jumpCaption(jump), 'caption' + (jump.settled || jump.cut_short ? '' : ' bad')));
    }
    byId('settling-hint').textContent = 'The mirror\'s distance to the jump\'s target (logarithmic) from the end of ' +
      'the commanded jump, against the settle band of ' + small(result.settle_band) + ' (green); the line marks the ' +
      'start of the next motion, green when the mirror had settled by then, red when not. ' +
      (jumps.length > chosen.length ? 'The ' + chosen.length + ' worst of ' + jumps.length + ' jumps; click a jump ' +
        'in the table of jumps to see it here.' : '');
  }

  // ---- tables ----------------------------------------------------------------------------------------------------
  const MaxTableRows = 1000;
  let selectedRow = null;
  function select(row) {
    if (selectedRow) selectedRow.classList.remove('selected');
    selectedRow = row;
    row.classList.add('selected');
  }
  function zoomTo(a, b) {
    const pad = Math.max((b - a) * 0.25, 200);
    setWindow(a - pad, b + pad);
  }
  const scrollTo = (id) => byId(id).scrollIntoView({ block: 'start' });

  // The rows a table lists: all of them, or the worst MaxTableRows in time order.
  function listed(count, order) {
    const all = Array.from({ length: count }, (_, i) => i);
    return count <= MaxTableRows ? all : order.slice(0, MaxTableRows).sort((a, b) => a - b);
  }

  const worst = new Set(data.markOrder.slice(0, Math.min(10, Math.max(2, Math.ceil(marks.length / 10)))));
  const edgeCell = (missing, speedShare) => small(missing) + (known(speedShare) ? ', ' + share(speedShare) + ' → ' + dose(doseOf(speedShare)) : '');
  const markIndices = listed(marks.length, data.markOrder);
  const markRows = tableRows(byId('marks'),
    ['#', 'gate on', 'length', 'speed', 'on delay', 'start: missing, speed → dose', 'off delay', 'end: missing, speed → dose', ''],
    markIndices.map((i) => {
      const mark = marks[i];
      return [String(i + 1), ms(mark.start_us - startUs), length(mark.length), speed(mark.speed), us(mark.laser_on_delay_us),
        edgeCell(mark.start_missing, mark.speed_at_on), us(mark.laser_off_delay_us), edgeCell(mark.end_missing, mark.speed_at_off),
        mark.not_measured || (mark.after_unsettled_jump ? 'after a jump that did not settle' : '')];
    }));
  markRows.forEach((row, k) => {
    const i = markIndices[k];
    const mark = marks[i];
    if (worst.has(i)) row.classList.add('worst');
    const outside = (missing, speedShare) => Math.abs(missing) > result.settle_band || doseOf(speedShare) > maxDose;
    if (outside(mark.start_missing, mark.speed_at_on)) row.cells[5].classList.add('bad');
    if (outside(mark.end_missing, mark.speed_at_off)) row.cells[7].classList.add('bad');
    row.addEventListener('click', () => {
      select(row);
      zoomTo(mark.start_us, mark.end_us);
      edgeGallery.selected = i;
      fillEdgeGallery();
      scrollTo(markCloseUps.has(i) ? 'edges-section' : 'plots');
    });
  });
  byId('marks-hint').textContent = 'Each time the laser gate is on. Missing: how much of the mark\'s start (end) the ' +
    'laser leaves out, negative where it marks beyond; speed: the mirror\'s along the mark when the gate switches, as a ' +
    'share of the mark speed; dose = 1 / speed (the dose of the mark\'s body is 1×). Red: missing more than the settle ' +
    'band or a dose above ' + maxDose + '×. Highlighted: the worst marks. Click a row to see its edges and zoom to it.' +
    (marks.length > MaxTableRows ? ' Listed: the ' + MaxTableRows + ' worst of ' + marks.length + ' marks.' : '');

  const jumpIndices = listed(jumps.length, data.jumpOrder);
  const jumpRows = tableRows(byId('jumps'),
    ['#', 'start', 'length', 'delay', 'settled after', 'settled', 'off at next motion'],
    jumpIndices.map((i) => {
      const jump = jumps[i];
      const settle = jump.settled ? us(jump.settle_us) : known(jump.predicted_settle_us)
        ? '≈ ' + wholeUs(jump.predicted_settle_us) + ' (predicted)' : known(jump.at_least_us) ? '> ' + us(jump.at_least_us) : '–';
      return [String(i + 1), ms(jump.start_us - startUs), length(jump.length), us(jump.delay_us), settle,
        jump.settled ? 'yes' : jump.cut_short ? '(end)' : 'NO', jump.settled ? '' : small(jump.distance_at_next)];
    }));
  jumpRows.forEach((row, k) => {
    const i = jumpIndices[k];
    const jump = jumps[i];
    if (!jump.settled && !jump.cut_short) row.classList.add('unsettled');
    row.addEventListener('click', () => {
      select(row);
      zoomTo(jump.start_us, jump.end_us + (jump.delay_us || 0));
      jumpGallery.selected = i;
      fillJumpGallery();
      scrollTo(jumpCloseUps.has(i) ? 'settling-section' : 'plots');
    });
  });
  byId('jumps-hint').textContent = 'Each commanded motion with the laser off. Settled after: from the end of the ' +
    'commanded jump until the mirror stays within ' + small(result.settle_band) + ' of the target. Highlighted: the ' +
    'jumps that had not settled when the next motion began. Click a row to see it and zoom to it.' +
    (jumps.length > MaxTableRows ? ' Listed: the ' + MaxTableRows + ' worst of ' + jumps.length + ' jumps.' : '');

  const corners = result.corners.slice(0, MaxTableRows);
  const cornerRows = tableRows(byId('corners'),
    ['#', 'mark', 'at', 'angle', 'polygon delay', 'rounding', 'edge dose', 'suggested delay'],
    corners.map((c, i) => [String(i + 1), String(c.mark + 1), ms(c.at_us - startUs), Math.round(c.angle_deg) + '°',
      us(c.delay_us), small(c.rounding), dose(c.edge_dose), wholeUs(c.suggested_delay_us)]));
  cornerRows.forEach((row, i) => {
    const corner = corners[i];
    if (known(corner.suggested_delay_us)) row.classList.add('unsettled');
    row.addEventListener('click', () => {
      select(row);
      zoomTo(corner.at_us - 1000, corner.at_us + 1000);
      xy.centerX = corner.x;
      xy.centerY = corner.y;
      xy.scale = Math.min(xyCanvas.clientWidth, xyCanvas.clientHeight) / (20 * Math.max(corner.rounding || 0, result.settle_band));
      xy.width = xyCanvas.clientWidth;
      drawPath();
      scrollTo('plots');
    });
  });
  byId('corners-hint').textContent = result.corners.length === 0 ? 'No polyline of this trace has a corner.'
    : 'Each corner of a polyline: how far the command turns, how long it stands at the corner (the polygon delay), ' +
      'how close the mirror comes to the corner point and the dose where it is slowest near it. Highlighted: rounded ' +
      'by more than the settle band, with the polygon delay that brings the mirror within it. Click a row to zoom to it.' +
      (result.corners.length > MaxTableRows ? ' Listed: the first ' + MaxTableRows + ' of ' + result.corners.length + '.' : '');

  // ---- drawing -----------------------------------------------------------------------------------------------------
  // The texts of a dygraphs plot (ticks, titles, legend) and their boxes on the page.
  function plotTexts(div) {
    const kinds = [['dygraph-axis-label-x', 'x'], ['dygraph-axis-label-y2', 'y2'], ['dygraph-axis-label-y', 'y'],
      ['dygraph-title', 'title'], ['dygraph-xlabel', 'title'], ['dygraph-ylabel', 'title'], ['dygraph-y2label', 'title'],
      ['dygraph-legend', 'legend']];
    const texts = [];
    for (const node of div.querySelectorAll('.dygraph-axis-label, .dygraph-title, .dygraph-xlabel, .dygraph-ylabel, .dygraph-y2label, .dygraph-legend')) {
      if (!node.textContent.trim()) continue;
      const range = document.createRange();
      range.selectNodeContents(node);
      const kind = kinds.find(([name]) => node.classList.contains(name) || (node.parentElement && node.parentElement.classList.contains(name)));
      texts.push([kind ? kind[1] : 'title', node.textContent].concat(box(range.getBoundingClientRect())));
    }
    return texts;
  }

  function writeVerdict() {
    verdict.views = {};
    verdict.boxes = {};
    for (const plot of allPlots()) {
      verdict.views[plot.div.id] = { texts: plotTexts(plot.div), points: plot.graph.numRows() };
      verdict.boxes[plot.div.id] = box(plot.div.getBoundingClientRect());
    }
    for (const [id, drawing] of drawings) {
      verdict.views[id] = { texts: drawing.drawn.boxes, points: drawing.drawn.points };
      verdict.boxes[id] = box(drawing.canvas.getBoundingClientRect());
    }
    verdict.height = document.documentElement.scrollHeight;
    showVerdict();
  }

  function drawAll() {
    // The laser plot's second axis narrows its plot area; the others leave the same room, so that times line up.
    laserPlot = makeLaserPlot();
    const rightGap = laserPlot ? 5 + Math.max(0, laserPlot.div.clientWidth - 5 - (laserPlot.graph.getArea().x +
      laserPlot.graph.getArea().w)) : 5;
    const head = 'Head' + data.head;
    const names = data.names;
    makePlot('plot-x', head + ' X: commanded and actual', ['cx', 'ax'], ['commanded ' + names.cx, 'actual ' + names.ax],
      ['#8a939e', '#1e6fd9'], positionScale, 'X (' + positionUnit + ')', rightGap);
    makePlot('plot-y', head + ' Y: commanded and actual', ['cy', 'ay'], ['commanded ' + names.cy, 'actual ' + names.ay],
      ['#8a939e', '#2e7d32'], positionScale, 'Y (' + positionUnit + ')', rightGap);
    makePlot('plot-speed', 'Speed along the path: commanded and the mirror\'s', ['sc', 'sa'],
      ['commanded', 'mirror'], ['#8a939e', '#c62828'], speedScale, 'speed (' + speedUnit + ')', rightGap);
    makePlot('plot-error', 'Following error: actual minus commanded shifted by the tracking error', ['fx', 'fy'],
      ['error X', 'error Y'], ['#1e6fd9', '#2e7d32'], smallScale, 'error (' + smallUnit + ')', rightGap);
    for (const plot of allPlots()) zoomOnWheel(plot);
    fitPath();
    applied = view.slice();
    byId('made-by').textContent = 'Made by ' + data.tool + ' report from ' + data.source +
      '. Figures from all ' + data.events.toLocaleString('en') + ' events' + (levels.length > 0 &&
      !levels[levels.length - 1].times ? '; the plots are thinned for display only.' : '.');
    draw(xyCanvas, paintPath);
    // A window in the address (report.html#t=FROM,TO in µs) opens the page on it.
    const opened = /^#t=([-\d.e]+),([-\d.e]+)$/.exec(window.location.hash);
    if (opened) setWindow(Number(opened[1]), Number(opened[2]));
    describePath();
    describeDetail();
    fillEdgeGallery();
    fillJumpGallery();
    window.addEventListener('resize', redrawAll);
    // Paper is narrower than a screen: every plot is drawn again at the width of the page as printed, and back after.
    const printed = (on) => { OltbPage.setPrinting(on); document.body.classList.toggle('printing', on); redrawAll(); };
    window.addEventListener('beforeprint', () => printed(true));
    window.addEventListener('afterprint', () => printed(false));
    verdict.state = 'drawn';
    verdict.loadMs = Math.round(performance.now());
    // The range of each series at the finest level, to compare with the capture.
    verdict.ranges = {};
    const finest = levels.length > 0 ? levels[levels.length - 1].values : {};
    for (const id of Object.keys(finest)) {
      let low = Infinity;
      let high = -Infinity;
      for (const v of finest[id]) if (!Number.isNaN(v)) { low = Math.min(low, v); high = Math.max(high, v); }
      verdict.ranges[id] = [low, high];
    }
    writeVerdict();
  }

  try {
    drawAll();
  } catch (failure) {
    errors.push(String(failure && failure.stack || failure));
    showVerdict();
  }
})();
