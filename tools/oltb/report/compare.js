// The comparison page's script. It reads the comparison's data (the element compare-data, written by oltb compare
// -o), fills the tables of figures and settings, and draws before and after in one close-up each, on canvases of
// its own: the start and the end of each mark shown, the settle curves of the jumps of each length, each corner.
// The two traces have their own clocks: the close-ups put them on the mark's own frame, on the time since the end
// of the commanded jump, and around the corner point, so that they lie on each other.
//
// Everything is drawn while the page loads; before printing, every close-up is drawn again at the width of the
// paper. When everything has drawn, the element verdict tells (as JSON) what drew and where the texts of each
// close-up stand, and any script errors: the browser test reads it.
'use strict';

(function () {
  const errors = [];
  const verdict = { state: 'loading', errors: errors };
  const showVerdict = () => { document.getElementById('verdict').textContent = JSON.stringify(verdict); };
  window.addEventListener('error', (event) => { errors.push(String(event.message)); showVerdict(); });

  const { known, us, wholeUs, ms, share, doseOf, dose, element, tableRows, byId, box, drawFigure, marker,
    verticalLine, unpack, unpackSamples, pointAt } = OltbPage;
  const data = JSON.parse(byId('compare-data').textContent);
  const unitsPerMm = data.unitsPerMm > 0 ? data.unitsPerMm : 0;
  const { length, small, smallScale, smallUnit, speed } = OltbPage.units(unitsPerMm);
  const band = data.settleBand;

  // The two traces, each with its colour and what it holds of the pairs shown, by index.
  const sides = [['before', '#1e6fd9'], ['after', '#e65100']].map(([name, color]) => {
    const side = data[name];
    const byIndex = (list, key) => new Map(list.map((item) => [item[key], item]));
    const edge = (e) => e && Object.assign({}, e, { mirror: unpackSamples(e.mirror), command: unpackSamples(e.command) });
    return {
      name: name, color: color, source: side.source, events: side.events, startUs: side.startUs,
      marks: byIndex(side.marks, 'index'), jumps: byIndex(side.jumps, 'index'), corners: byIndex(side.corners, 'index'),
      markCloseUps: new Map(side.markCloseUps.map((c) => [c.mark, { start: edge(c.start), end: edge(c.end) }])),
      jumpCloseUps: new Map(side.jumpCloseUps.filter((c) => c.t).map((c) => [c.jump,
        Object.assign({}, c, { t: unpack(c.t), distance: unpack(c.distance) })])),
      cornerCloseUps: new Map(side.cornerCloseUps.map((c) => [c.corner,
        Object.assign({}, c, { mirror: unpackSamples(c.mirror), command: unpackSamples(c.command) })])),
      settings: side.settings, counts: side.counts,
    };
  });
  // The pair [b, a] as [what the trace before has of it, what the trace after has], from `part`.
  const both = (pair, part) => sides.map((side, s) => side[part].get(pair[s]));

  // ---- header: sources, a job that differs, figures, settings ------------------------------------------------------
  byId('sources').textContent = 'Before: ' + sides[0].source + ' · after: ' + sides[1].source + ' — head ' + data.head;
  if (data.jobDifference) {
    byId('warnings').hidden = false;
    byId('warning-list').appendChild(element('li', data.jobDifference.charAt(0).toUpperCase() +
      data.jobDifference.slice(1) + '.'));
    byId('warning-list').appendChild(element('li', 'The figures over the whole trace (tracking error, following ' +
      'error, path deviation) come from different motions, so their change says little about the settings.'));
  }

  const value = (unit, v) => (!known(v) ? '–' : unit === 'us' ? us(v) : unit === 'units' ? small(v)
    : unit === 'dose' ? dose(v) : unit === 'share' ? share(v) : unit === 'events' ? String(Math.round(v)) : v.toFixed(2));
  // The change in words; lengths in the words are in head units, so with --units-per-mm the column says it again.
  const change = (c) => {
    const words = c.verdict && c.verdict !== c.words ? c.verdict + ': ' + c.words : c.words;
    return unitsPerMm && c.unit === 'units' ? words.replace(/([\d.]+) units/, (_, n) => small(Number(n))) : words;
  };
  const changeRows = (table, rows, extra) => tableRows(table, ['', 'before', 'after', 'change'].concat(extra ? [extra[0]] : []),
    rows.map((c, i) => [c.figure, value(c.unit, c.before), value(c.unit, c.after), change(c)]
      .concat(extra ? [extra[1](i)] : [])))
    .forEach((row, i) => {
      if (rows[i].verdict === 'better' || rows[i].verdict === 'worse') row.classList.add(rows[i].verdict);
      if (rows[i].verdict === null && rows[i].words !== 'the same') row.cells[3].classList.add('change');
    });
  changeRows(byId('figures'), data.figures);
  byId('tally').textContent = data.better + ' better (green), ' + data.worse + ' worse (red), of ' + data.figureCount +
    ' figures; the rest the same or not measured. Figures per mark speed are medians over the paired marks, per ' +
    'jump length and corner over the paired jumps and corners (their number in brackets).';
  if (data.figures.length < data.figureCount) {
    byId('figures-note').textContent = 'Listed: ' + data.figures.length + ' of ' + data.figureCount + ' figures, ' +
      'those that changed first; oltb compare --json gives every one.';
  }
  const settingKeys = ['laser_on_delay_us', 'laser_off_delay_us', 'jump_delay_us', 'mark_delay_us', 'polygon_delay_us'];
  changeRows(byId('settings'), data.settings,
    ['suggested now', (i) => wholeUs((sides[1].settings[settingKeys[i]] || {}).suggested)]);
  const counted = (k) => ' (of ' + sides[0].counts[k] + ' before, ' + sides[1].counts[k] + ' after)';
  byId('pairs').textContent = 'Paired by their commanded points: ' + data.marks.pairs + ' marks' + counted(0) + ', ' +
    data.jumps.pairs + ' jumps' + counted(1) + ', ' + data.corners.pairs + ' corners' + counted(2) + '.';

  // ---- drawings ----------------------------------------------------------------------------------------------------
  const drawings = new Map();
  function draw(card, id, paint) {
    const canvas = card.appendChild(element('canvas', undefined, 'closeup'));
    canvas.id = id;
    drawings.set(id, { canvas: canvas, paint: () => paint(canvas), drawn: paint(canvas) });
    return canvas;
  }
  function caption(parent, lines) {
    const node = parent.appendChild(element('p', undefined, 'caption'));
    lines.forEach(([side, words], i) => {
      if (i > 0) node.appendChild(element('br'));
      node.appendChild(element('span', side.name, 'key ' + side.name));
      node.appendChild(document.createTextNode(' ' + words));
    });
  }
  // A mirror's samples as a line in its trace's colour: solid with a dot per sample where `on(t)`, dashed elsewhere.
  // The trace before is drawn first and wider, so that where the two lie on each other both show.
  const widths = [[3, 1.6, 3.2], [1.4, 1, 1.8]];  // per trace: line with the laser on, off, dot radius
  function strokeMirror(context, samples, at, s, on) {
    const [lit, unlit, dot] = widths[s];
    context.strokeStyle = sides[s].color;
    context.fillStyle = sides[s].color;
    for (let i = 1; i < samples.t.length; ++i) {
      const onBoth = on(samples.t[i - 1]) && on(samples.t[i]);
      context.lineWidth = onBoth ? lit : unlit;
      context.setLineDash(onBoth ? [] : [4, 3]);
      context.beginPath(); context.moveTo(...at(samples, i - 1)); context.lineTo(...at(samples, i)); context.stroke();
    }
    context.setLineDash([]);
    for (let i = 0; i < samples.t.length; ++i) {
      if (!on(samples.t[i])) continue;
      context.beginPath(); context.arc(...at(samples, i), dot, 0, 2 * Math.PI); context.fill();
    }
  }
  function strokeCommand(context, samples, at) {
    context.lineWidth = 2;
    context.strokeStyle = '#aab2bc';
    context.beginPath();
    for (let i = 0; i < samples.t.length; ++i) context.lineTo(...at(samples, i));
    context.stroke();
  }
  const plural = (n, word) => n + ' ' + word + (n === 1 ? '' : 's');
  const leftOut = (shown, all, what, order) => (shown < all ? 'The page holds the ' + shown + ' of ' + all + ' ' + what +
    ' ' + order + '; oltb compare --json gives every one. ' : '');

  // ---- mark edges ----------------------------------------------------------------------------------------------------
  // One edge of a mark, before and after, in the mark's own frame (from the first trace that has the edge): along it
  // from the commanded point and across it, on equal scales.
  function paintEdge(canvas, marks, edges, start) {
    const reference = edges.find((e) => e);
    const [px, py] = reference.point;
    const [dx, dy] = reference.direction;
    const along = (p) => ((p[0] - px) * dx + (p[1] - py) * dy) * smallScale;
    const across = (p) => ((p[1] - py) * dx - (p[0] - px) * dy) * smallScale;
    const gates = edges.map((e) => e && pointAt(e.mirror, e.gate_us));
    const shown = [0].concat(gates.filter((p) => p).map(along));
    const low = Math.min(...shown);
    const high = Math.max(...shown);
    const markSpeed = Math.max(...marks.map((m) => (m && known(m.speed) ? m.speed : 0)));
    const pad = Math.max(0.6 * (high - low), 0.05 * markSpeed * smallScale, band * smallScale / 4);
    return drawFigure(canvas, {
      x: { low: low - pad, high: high + pad, title: 'along the mark from its ' + (start ? 'start' : 'end') + ' (' + smallUnit + ')' },
      y: { equal: true, atLeast: 1.2 * Math.max(0, ...gates.filter((p) => p).map((p) => Math.abs(across(p)))),
        title: 'across (' + smallUnit + ')' },
      paint: (context, sx, sy) => {
        const at = (samples, i) => [sx(along([samples.x[i], samples.y[i]])), sy(across([samples.x[i], samples.y[i]]))];
        strokeCommand(context, reference.command, at);
        let points = 0;
        edges.forEach((edge, s) => {
          if (!edge) return;
          strokeMirror(context, edge.mirror, at, s, (t) => (start ? t >= edge.gate_us : t <= edge.gate_us));
          points += edge.mirror.t.length;
        });
        edges.forEach((edge) => { if (edge) marker(context, sx(along(edge.point)), sy(across(edge.point)), 'point'); });
        gates.forEach((gate, s) => { if (gate) marker(context, sx(along(gate)), sy(across(gate)), 'gate', sides[s].color); });
        return points;
      },
    });
  }

  function edgeWords(mark, start) {
    if (!mark) return 'not in this trace';
    const missing = start ? mark.start_missing : mark.end_missing;
    const speedShare = start ? mark.speed_at_on : mark.speed_at_off;
    if (!known(missing)) return 'not measured';
    return (missing >= 0 ? small(missing) + ' not marked' : 'marks ' + small(-missing) + (start ? ' before the start' : ' past the end')) +
      ', the mirror at ' + share(speedShare) + ' of the mark speed, dose ' + dose(doseOf(speedShare));
  }

  function fillEdges() {
    const gallery = byId('edges');
    data.marks.shown.forEach((pair, k) => {
      const marks = both(pair, 'marks');
      const closeUps = both(pair, 'markCloseUps');
      const card = gallery.appendChild(element('div', undefined, 'card'));
      const names = pair[0] === pair[1] ? 'Mark ' + (pair[0] + 1) : 'Mark ' + (pair[0] + 1) + ' before, ' + (pair[1] + 1) + ' after';
      card.appendChild(element('h3', names + ' · ' + speed(marks[0].speed) + ' · gate on at ' +
        marks.map((m, s) => ms(m.start_us - sides[s].startUs)).join(' and ')));
      const row = card.appendChild(element('div', undefined, 'pair'));
      for (const start of [true, false]) {
        const figure = row.appendChild(element('figure'));
        const edges = closeUps.map((c) => c && (start ? c.start : c.end));
        if (edges.some((e) => e)) draw(figure, 'edge-' + (start ? 'start-' : 'end-') + k, (canvas) => paintEdge(canvas, marks, edges, start));
        const lines = sides.map((side, s) => [side, edgeWords(marks[s], start)]);
        const title = figure.appendChild(element('figcaption', start ? 'Gate on:' : 'Gate off:'));
        caption(title, lines);
      }
    });
    byId('edges-hint').textContent = (data.marks.shown.length === 0 ? 'No paired mark had its edges measured. '
      : 'The marks that changed most first: the largest change of a missing length and of an edge dose, in turn. ') +
      leftOut(data.marks.shown.length, data.marks.pairs, 'paired marks', 'that changed most');
  }

  // ---- jumps ---------------------------------------------------------------------------------------------------------
  // The jumps of one length, before and after: the mirror's distance to the target (logarithmic) from the end of the
  // commanded jump against the settle band, and the start of the next motion of each trace.
  function paintJumps(canvas, curves) {
    const bandShown = band * smallScale;
    let last = 1;
    let farthest = bandShown * 10;
    for (const { closeUp } of curves) {
      if (closeUp.t.length) last = Math.max(last, closeUp.t[closeUp.t.length - 1] - closeUp.end_us);
      for (const d of closeUp.distance) farthest = Math.max(farthest, d * smallScale * 1.5);
    }
    return drawFigure(canvas, {
      x: { low: 0, high: last, title: 'µs after the end of the commanded jump' },
      y: { low: bandShown / 20, high: farthest, log: true, title: 'to target (' + smallUnit + ')' },
      paint: (context, sx, sy, boxes) => {
        context.fillStyle = 'rgba(46, 125, 50, 0.12)';
        context.fillRect(sx(0), sy(bandShown), sx(last) - sx(0), sy(bandShown / 20) - sy(bandShown));
        context.strokeStyle = '#2e7d32';
        context.setLineDash([5, 3]);
        context.beginPath(); context.moveTo(sx(0), sy(bandShown)); context.lineTo(sx(last), sy(bandShown)); context.stroke();
        context.setLineDash([]);
        let points = 0;
        for (const { side, closeUp } of curves) {
          context.strokeStyle = side.color;
          context.lineWidth = side === sides[0] ? 3 : 1.4;
          context.beginPath();
          for (let i = 0; i < closeUp.t.length; ++i) context.lineTo(sx(closeUp.t[i] - closeUp.end_us), sy(closeUp.distance[i] * smallScale));
          context.stroke();
          points += closeUp.t.length;
        }
        // One line per trace and time of the next motion; the name once per trace, before at the top, after below.
        const drawn = new Set();
        sides.forEach((side, s) => {
          for (const { closeUp } of curves.filter((c) => c.side === side && known(c.closeUp.next_us))) {
            const next = Math.round(closeUp.next_us - closeUp.end_us);
            if (drawn.has(s + ':' + next)) continue;
            verticalLine(context, boxes, sx, sy, next, side.color, [6, 3],
              Array.from(drawn).some((key) => key.startsWith(s + ':')) ? '' : 'next motion ' + side.name, s === 0);
            drawn.add(s + ':' + next);
          }
        });
        return points;
      },
    });
  }

  function jumpWords(jumps) {
    const present = jumps.filter((j) => j);
    if (present.length === 0) return 'not in this trace';
    const settled = present.filter((j) => j.settled);
    const range = (values) => {
      const shown = values.filter(known).map(Math.round);
      if (shown.length === 0) return '–';
      const [low, high] = [Math.min(...shown), Math.max(...shown)];
      return low === high ? low + ' µs' : low + ' to ' + high + ' µs';
    };
    const unsettled = present.filter((j) => !j.settled);
    return 'settled ' + settled.length + ' of ' + present.length +
      (settled.length ? ', after ' + range(settled.map((j) => j.settle_us)) : '') +
      (unsettled.length ? (settled.length ? '; the others ' : '; ') + range(unsettled.map((j) => j.distance_at_next * smallScale)).replace(/ µs$/, ' ' + smallUnit) +
        ' off at the next motion, needing ' + range(unsettled.map((j) => (known(j.predicted_settle_us) ? j.predicted_settle_us : j.at_least_us))) : '') +
      '; jump delay ' + range(present.map((j) => j.delay_us));
  }

  function fillJumps() {
    const gallery = byId('settling');
    data.jumps.groups.forEach((group, k) => {
      const card = gallery.appendChild(element('div', undefined, 'card'));
      card.appendChild(element('h3', 'Jumps of ' + length(group.length) + ' · ' + plural(group.pairs, 'pair') +
        (group.shown.length < group.pairs ? ', the ' + group.shown.length + ' worst shown' : '')));
      const curves = [];
      sides.forEach((side, s) => {
        for (const pair of group.shown) {
          const closeUp = side.jumpCloseUps.get(pair[s]);
          if (closeUp) curves.push({ side: side, closeUp: closeUp });
        }
      });
      if (curves.length > 0) draw(card, 'jumps-' + k, (canvas) => paintJumps(canvas, curves));
      caption(card, sides.map((side, s) => [side, jumpWords(group.shown.map((pair) => side.jumps.get(pair[s])))]));
    });
    byId('settling-hint').textContent = (data.jumps.groups.length === 0 ? 'No paired jump (none that the trace cut short). '
      : 'For each length (jumps within 5 % of each other), the mirror\'s distance to the target from the end of the ' +
        'commanded jump, against the settle band of ' + small(band) + ' (green), before and after; the dashed lines ' +
        'mark the start of the next motion in each trace. A curve that is still above the band at its line had not ' +
        'settled. ') + leftOut(data.jumps.groups.length, data.jumps.groupCount, 'lengths of jumps', 'whose settling changed most');
  }

  // ---- corners -------------------------------------------------------------------------------------------------------
  // A corner, before and after, around the corner point: the commanded path, the mirrors' paths and a dashed circle
  // of each trace's rounding, which its path touches where it comes closest.
  function paintCorner(canvas, corners, closeUps) {
    const reference = closeUps.find((c) => c);
    const [cx, cy] = reference.point;
    const roundings = corners.map((c) => (c && known(c.rounding) ? c.rounding : 0));
    const reach = Math.max(4 * Math.max(...roundings), 2 * band) * smallScale;
    return drawFigure(canvas, {
      x: { low: -reach, high: reach, title: 'x from the corner (' + smallUnit + ')' },
      y: { equal: true, atLeast: reach, title: 'y (' + smallUnit + ')' },
      paint: (context, sx, sy) => {
        const at = (samples, i) => [sx((samples.x[i] - cx) * smallScale), sy((samples.y[i] - cy) * smallScale)];
        strokeCommand(context, reference.command, at);
        let points = 0;
        closeUps.forEach((closeUp, s) => {
          if (!closeUp) return;
          strokeMirror(context, closeUp.mirror, at, s, () => true);
          points += closeUp.mirror.t.length;
          if (roundings[s] > 0) {
            context.save();
            context.strokeStyle = sides[s].color;
            context.setLineDash([3, 3]);
            context.beginPath();
            context.arc(sx(0), sy(0), Math.abs(sx(roundings[s] * smallScale) - sx(0)), 0, 2 * Math.PI);
            context.stroke();
            context.restore();
          }
        });
        marker(context, sx(0), sy(0), 'point');
        return points;
      },
    });
  }

  function fillCorners() {
    const gallery = byId('corners');
    data.corners.shown.forEach((pair, k) => {
      const corners = both(pair, 'corners');
      const closeUps = both(pair, 'cornerCloseUps');
      const corner = corners[1] || corners[0];
      const card = gallery.appendChild(element('div', undefined, 'card'));
      card.appendChild(element('h3', 'Corner at (' + length(corner.x) + ', ' + length(corner.y) + ') · ' +
        Math.round(corner.angle_deg) + '°'));
      if (closeUps.some((c) => c)) draw(card, 'corner-' + k, (canvas) => paintCorner(canvas, corners, closeUps)).classList.add('square');
      caption(card, sides.map((side, s) => [side, !corners[s] ? 'not in this trace' : 'rounded by ' +
        small(corners[s].rounding) + ', dose ' + dose(corners[s].edge_dose) + ', polygon delay ' + wholeUs(corners[s].delay_us)]));
    });
    byId('corners-hint').textContent = (data.corners.shown.length === 0 ? 'No paired corner. '
      : 'Each corner around its point on equal axes, before and after: how the mirror cuts it (the dashed circle ' +
        'has the radius of the rounding, the closest the mirror comes to the corner point) and, where the dots ' +
        'crowd, slows down under the laser. The corners that changed most first. ') +
      leftOut(data.corners.shown.length, data.corners.pairs, 'paired corners', 'that changed most');
  }

  // ---- drawing -------------------------------------------------------------------------------------------------------
  function writeVerdict() {
    verdict.views = {};
    verdict.boxes = {};
    for (const [id, drawing] of drawings) {
      verdict.views[id] = { texts: drawing.drawn.boxes, points: drawing.drawn.points };
      verdict.boxes[id] = box(drawing.canvas.getBoundingClientRect());
    }
    verdict.height = document.documentElement.scrollHeight;
    showVerdict();
  }

  function redrawAll() {
    for (const drawing of drawings.values()) drawing.drawn = drawing.paint();
  }

  try {
    fillEdges();
    fillJumps();
    fillCorners();
    byId('made-by').textContent = 'Made by ' + data.tool + ' compare from ' + sides.map((side) => side.source + ' (' +
      side.events.toLocaleString('en') + ' events)').join(' and ') + '. The figures come from every event.';
    window.addEventListener('resize', redrawAll);
    // Paper is narrower than a screen: every close-up is drawn again at the width of the page as printed, and back after.
    const printed = (on) => { OltbPage.setPrinting(on); document.body.classList.toggle('printing', on); redrawAll(); };
    window.addEventListener('beforeprint', () => printed(true));
    window.addEventListener('afterprint', () => printed(false));
    verdict.state = 'drawn';
    verdict.loadMs = Math.round(performance.now());
    writeVerdict();
  } catch (failure) {
    errors.push(String(failure && failure.stack || failure));
    showVerdict();
  }
})();
