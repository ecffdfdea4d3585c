// Draws the page from the data that stands in it. Texts of the result become text nodes alone, never markup.
"use strict";
(() => {
  const data = JSON.parse(document.getElementById("data").textContent);
  const byId = (id) => document.getElementById(id);
  const comparing = data.before !== null;

  // In the order of a row's numbers.
  const kColumns = [
    { key: "peak", title: "At peak", isSize: true },
    { key: "live", title: "At end", isSize: true },
    { key: "blocks", title: "Blocks at end", isSize: false },
    { key: "bytes", title: "In all", isSize: true },
    { key: "calls", title: "Calls", isSize: false },
    { key: "temporary", title: "Temporary", isSize: false },
  ];
  const kLive = 1, kBlocks = 2;
  const kMetrics = [
    { column: 0, title: "At peak", of: "at peak" },
    { column: 1, title: "Leaks", of: "left at the end" },
    { column: 3, title: "Bytes", of: "in all" },
    { column: 4, title: "Calls", of: "calls" },
  ];

  // ---- Readable numbers ----

  function size(bytes) {
    if (bytes < 1024) return `${bytes} B`;
    let value = bytes, unit = -1;
    for (; value >= 1023.95; ++unit) value /= 1024;
    return `${value.toFixed(1)} ${["KiB", "MiB", "GiB", "TiB", "PiB", "EiB"][unit]}`;
  }
  const count = (value) => value.toLocaleString("en-US");
  const readable = (value, isSize) => (isSize ? size(value) : count(value));
  function difference(before, now, isSize) {
    if (before === now) return "0";
    return now > before ? `+${readable(now - before, isSize)}` : `\u2212${readable(before - now, isSize)}`;
  }
  const direction = (before, now) => (now > before ? "growth" : now < before ? "shrinkage" : "");
  const seconds = (milliseconds) => `${(milliseconds / 1000).toFixed(3)} s`;
  const share = (part, whole) => (whole === 0 ? "0 %" : `${((100 * part) / whole).toFixed(1)} %`);

  // ---- Elements and places ----

  function element(name, className, ...children) {
    const made = document.createElement(name);
    if (className) made.className = className;
    made.append(...children);
    return made;
  }

  const places = data.places.map(([name, module, offset, file, line, inlined]) => ({
    name: name || (module ? `${module}+${offset}` : offset),
    module: name ? module : "",
    home: module,
    source: file ? `${file}:${line}` : "",
    inlined,
    search: `${name} ${module} ${file}`.toLowerCase(),
    key: `${name || offset}\n${module}\n${inlined}`,
  }));
  const sourceName = (place) => place.source.slice(place.source.lastIndexOf("/") + 1);
  const isOperatorNew = (place) => place.name.startsWith("operator new");

  const rows = data.rows.map(([now, before, cut, stack]) => {
    const all = stack.map((index) => places[index]);
    let first = 0;
    while (first + 1 < all.length && isOperatorNew(all[first])) ++first;
    return { now, before, cut, stack, places: all, shown: all.slice(first) };
  });
  const differs = (row, column) => Math.abs(row.now[column] - (comparing ? row.before[column] : 0));

  // ---- Totals ----

  function ended(run) {
    return `process ${run.pid}, ${seconds(run.milliseconds)}, ended by ${run.end} with status ${run.status}`;
  }

  function drawHeader() {
    const { run, before } = data;
    byId("program").textContent = run.program.slice(run.program.lastIndexOf("/") + 1) || run.program;
    byId("about").textContent = comparing
      ? `now: ${run.path} (${run.program}, ${ended(run)})\nbefore: ${before.path} (${before.program}, ${ended(before)})`
      : `${run.program}, ${ended(run)}`;
    for (const [index, column] of kColumns.entries()) {
      const now = run.totals[index];
      const value = element("dd", "", readable(now, column.isSize));
      if (comparing) {
        const old = before.totals[index];
        value.append(element("small", direction(old, now), `${difference(old, now, column.isSize)}`),
          element("small", "", `from ${readable(old, column.isSize)}`));
      } else if (index === 0) {
        value.append(element("small", "", `after ${seconds(run.peakMilliseconds)}`));
      }
      byId("totals").append(element("div", "", element("dt", "", column.title), value));
    }
    byId("functions").textContent = run.functions.map(([name, calls]) => `${name} ${count(calls)}`).join(" \u00b7 ");
  }

  // ---- Memory over time ----

  let chart = null;

  // The samples, of which the last is the end, and the peak. Where samples are further apart than their interval, the
  // state stayed from the interval's end to the event of the next sample: one event before what that one says.
  function timeline(run) {
    const { samples, interval } = run;
    if (samples.length === 0) return [[], []];
    const found = samples.findIndex(([time]) => time > run.peakMilliseconds);
    const afterPeak = found === -1 ? samples.length - 1 : found;
    const times = [], bytes = [];
    const peak = [run.peakMilliseconds, run.totals[0]];
    for (const [time, live] of [...samples.slice(0, afterPeak), peak, ...samples.slice(afterPeak)]) {
      const last = times.at(-1) ?? -1;
      if (times.length > 0 && time - last > 1.5 * interval) {
        times.push(last + interval);
        bytes.push(live);
      }
      times.push(time > last ? time : last + 0.1); // times are told in whole milliseconds
      bytes.push(live);
    }
    return [times.map((time) => time / 1000), bytes];
  }

  function drawChart() {
    const runs = comparing ? [data.run, data.before] : [data.run];
    const tables = runs.map(timeline);
    if (tables.every(([times]) => times.length < 2)) {
      byId("time").hidden = true;
      return;
    }
    const style = getComputedStyle(document.documentElement);
    const colour = (name) => style.getPropertyValue(name).trim();
    for (const run of runs) tables.push([[run.peakMilliseconds / 1000], [run.totals[0]]]);
    const value = (_, bytes) => (bytes == null ? "\u2013" : size(bytes));
    const line = (label, name, fill) => ({
      label, value, stroke: colour(name), width: 2, fill: fill && colour(fill), spanGaps: true,
      points: { show: false },
    });
    const peak = (label, run, name) => ({
      label: `${label} ${size(run.totals[0])}`, value: () => "", stroke: colour(name), paths: () => null, points: { show: true, size: 9, fill: colour(name) },
    });
    const axis = { stroke: colour("--quiet"), grid: { stroke: colour("--line"), width: 1 }, ticks: { stroke: colour("--line") },
      font: "12px system-ui, sans-serif" };
    const box = byId("chart");
    const tick = (bytes) => size(bytes).replace(".0 ", " ");
    chart?.destroy();
    chart = new uPlot({
      width: box.clientWidth,
      height: box.clientWidth < 600 ? 200 : 260,
      scales: { x: { time: false }, y: { range: (_, low, high) => [0, Math.max(high, 1) * 1.05] } },
      axes: [
        { ...axis, values: (_, splits) => splits.map((split) => `${+split.toFixed(6)} s`), space: 70 },
        { ...axis, size: 76, incrs: Array.from({ length: 62 }, (_, power) => 2 ** power), values: (_, splits) => splits.map(tick) },
      ],
      series: [
        { label: "time", value: (_, time) => (time == null ? "\u2013" : `${time.toFixed(3)} s`) },
        ...(comparing ? [line("now", "--accent"), line("before", "--before"), peak("peak now", data.run, "--accent"),
          peak("peak before", data.before, "--before")]
          : [line("live", "--accent", "--fill"), peak("peak", data.run, "--growth")]),
      ],
      cursor: { drag: { x: true, y: false } },
    }, uPlot.join(tables), box);
    box.setAttribute("aria-label", runs.map((run) =>
      `Memory of process ${run.pid} over ${seconds(run.milliseconds)}: peak ${size(run.totals[0])} after ` +
      `${seconds(run.peakMilliseconds)}, ${size(run.totals[1])} at the end.`).join(" "));
  }

  // ---- Flame graph ----

  const dark = matchMedia("(prefers-color-scheme: dark)");
  const still = matchMedia("(prefers-reduced-motion: reduce)");
  const flame = { chart: null, root: null, at: null, metric: kMetrics[0], search: "" };

  function grow(row, column, nodes) {
    const now = row.now[column], before = comparing ? row.before[column] : 0;
    const weight = Math.max(now, before);
    for (const node of nodes) {
      node.value += weight;
      node.now += now;
      node.before += before;
    }
  }

  function newNode(name, place) {
    return { name, place, value: 0, now: 0, before: 0, children: [], named: new Map() };
  }

  function childOf(node, key, name, place) {
    let child = node.named.get(key);
    if (child === undefined) {
      child = newNode(name, place);
      node.named.set(key, child);
      node.children.push(child);
    }
    return child;
  }

  // The widest first, without those that no zoom would show.
  const kLeastShare = 1e-5;
  function order(node, least) {
    const nodes = [node];
    while (nodes.length > 0) {
      const next = nodes.pop();
      next.children = next.children.filter((child) => child.value >= least).sort((left, right) => right.value - left.value);
      for (const child of next.children) nodes.push(child);
    }
  }

  function flameTree(column) {
    const root = newNode(byId("program").textContent, null);
    for (const row of rows) {
      if (Math.max(row.now[column], comparing ? row.before[column] : 0) === 0) continue;
      const path = [root];
      if (row.cut) path.push(childOf(path.at(-1), "cut", "(callers that were not recorded)", null));
      for (let i = row.places.length; i-- > 0;) {
        const place = row.places[i];
        path.push(childOf(path.at(-1), place.key, place.inlined ? `${place.name} [inlined]` : place.name, place));
      }
      grow(row, column, path);
    }
    order(root, kLeastShare * root.value);
    return root;
  }

  // Of modules, as far apart as those before it allow.
  const hues = new Map();
  function hueOf(module) {
    if (!hues.has(module)) hues.set(module, (95 + 137.5 * hues.size) % 360);
    return hues.get(module);
  }

  // So that neighbours can be told apart.
  function shadeOf(name) {
    let sum = 0;
    for (let i = 0; i < name.length; ++i) sum = (31 * sum + name.charCodeAt(i)) % 9973;
    return (sum % 9) - 4;
  }

  // By module; of a comparison by what became of it.
  function boxColour(node) {
    const { place, now, before } = node.data;
    const light = dark.matches ? 68 : 78;
    if (node.highlight) return `hsl(310 75% ${light}%)`;
    if (comparing) {
      const strength = (now - before) / Math.max(now, before, 1);
      if (strength === 0) return `hsl(210 8% ${light}%)`;
      return `hsl(${strength > 0 ? 8 : 140} ${30 + 50 * Math.abs(strength)}% ${light + 6 - 10 * Math.abs(strength)}%)`;
    }
    if (place === null) return `hsl(210 8% ${light}%)`;
    return `hsl(${hueOf(place.home)} ${place.inlined ? 35 : 55}% ${light + shadeOf(place.name)}%)`;
  }

  function describe(node) {
    const { name, place, now, before } = node.data;
    const column = kColumns[flame.metric.column];
    const where = place === null || place.module === "" ? name : `${name} (${place.module})`;
    if (comparing) {
      return `${where}: ${difference(before, now, column.isSize)}, from ${readable(before, column.isSize)} to ` +
        `${readable(now, column.isSize)} ${flame.metric.of}`;
    }
    return `${where}: ${readable(now, column.isSize)} ${flame.metric.of}, ${share(now, flame.root.now)}`;
  }

  function showDetails(node) {
    if (node) byId("flame-details").textContent = describe(node);
    else if (flame.found) byId("flame-details").textContent = flame.found;
    else if (flame.root) byId("flame-details").textContent = flame.root.value === 0 ? `Nothing ${flame.metric.of}.` : describe(flame.chart.findById(0));
  }

  function drawFlame() {
    const box = byId("flame");
    box.replaceChildren();
    flame.root = flameTree(flame.metric.column);
    flame.at = null;
    flame.found = "";
    flame.chart = flamegraph.default()
      .width(box.clientWidth)
      .cellHeight(21)
      .minFrameSize(1)
      .inverted(true)
      .resetHeightOnZoom(true)
      .transitionDuration(still.matches ? 0 : 250)
      .setColorMapper(boxColour)
      .setLabelHandler(describe)
      .setDetailsHandler(() => {})
      .onHover(showDetails)
      .onClick((node) => { flame.at = node; mark(); showDetails(node); })
      .setSearchMatch((node, term) => node.data.place !== null && node.data.place.search.includes(term))
      .setSearchHandler((results, sum) => {
        const column = kColumns[flame.metric.column];
        flame.found = `${results.length === 1 ? "1 box matches" : `${count(results.length)} boxes match`}: ${readable(sum, column.isSize)} ${flame.metric.of}, ${share(sum, flame.root.value)}`;
        showDetails(null);
      });
    d3.select(box).datum(flame.root).call(flame.chart);
    if (flame.search) flame.chart.search(flame.search);
    showDetails(null);
  }

  function mark() {
    d3.select("#flame").selectAll("g").classed("at", (node) => node === flame.at);
  }

  function move(to) {
    if (!to) return;
    flame.at = to;
    mark();
    showDetails(to);
  }

  function sibling(node, step) {
    const visible = node.parent ? node.parent.children.filter((child) => child.value > 0) : [];
    return visible[visible.indexOf(node) + step];
  }

  function flameKey(event) {
    const at = flame.at ?? flame.chart.findById(0);
    const moves = {
      ArrowUp: () => move(at.parent),
      ArrowDown: () => move(flame.at ? at.children?.find((child) => child.value > 0) : at),
      ArrowLeft: () => move(sibling(at, -1)),
      ArrowRight: () => move(sibling(at, 1)),
      Enter: () => { flame.chart.zoomTo(at); mark(); },
      Escape: resetZoom,
    };
    if (!(event.key in moves) || event.ctrlKey || event.altKey || event.metaKey) return;
    event.preventDefault();
    moves[event.key]();
  }

  function resetZoom() {
    flame.chart.resetZoom();
    flame.at = null;
    mark();
    showDetails(null);
  }

  function searchFlame() {
    flame.search = byId("flame-search").value.trim().toLowerCase();
    flame.found = "";
    if (flame.search) flame.chart.search(flame.search);
    else flame.chart.clear();
    mark();
    showDetails(null);
  }

  function drawMetrics() {
    for (const metric of kMetrics) {
      const input = element("input");
      input.type = "radio";
      input.name = "metric";
      input.value = kColumns[metric.column].key;
      input.checked = metric === flame.metric;
      input.addEventListener("change", () => { flame.metric = metric; drawFlame(); });
      byId("metrics").append(element("label", "", input, element("span", "", metric.title)));
    }
  }

  // ---- Call stacks ----

  const kRowsAtOnce = 40;
  const table = { column: 0, descending: true, most: kRowsAtOnce, filter: "" };
  const kTies = [0, kLive, 3, 4];

  function compareRows(left, right) {
    for (const column of [table.column, ...kTies]) {
      const by = differs(right, column) - differs(left, column);
      if (by !== 0) return table.descending ? by : -by;
    }
    return 0;
  }

  function selectedRows() {
    const matching = table.filter ? new Set(places.filter((place) => place.search.includes(table.filter))) : null;
    const leaks = byId("leaks").checked;
    return rows.filter((row) =>
      (!comparing || row.now.some((now, column) => now !== row.before[column])) &&
      (!leaks || row.now[kBlocks] !== 0 || (comparing && row.before[kBlocks] !== 0)) &&
      (!matching || row.places.some((place) => matching.has(place)))).sort(compareRows);
  }

  function frameItem(place) {
    const item = element("li", "", place.name);
    if (place.inlined) item.append(" ", element("span", "tag", "inlined"));
    const rest = [place.inlined ? "" : place.module, place.source].filter(Boolean).join(", ");
    if (rest) item.append(" ", element("span", "quiet", rest));
    return item;
  }

  function whereCell(row) {
    const [top, ...callers] = row.shown;
    const button = element("button", "toggle", top ? top.name : "(unknown)");
    button.type = "button";
    button.setAttribute("aria-expanded", "false");
    const source = top ? sourceName(top) || top.module : "";
    if (source) button.append(" ", element("span", "quiet", source));
    const cell = element("td", "where", button);
    if (callers.length > 0) {
      cell.append(element("span", "callers", callers.slice(0, 2).map((place) => `from ${place.name}`).join(", ")));
    }
    button.addEventListener("click", () => {
      const open = button.getAttribute("aria-expanded") !== "true";
      button.setAttribute("aria-expanded", String(open));
      cell.querySelector(".frames")?.remove();
      if (!open) return;
      const list = element("ol", "frames", ...row.places.map(frameItem));
      if (row.cut) list.append(element("li", "quiet", "and callers that were not recorded"));
      cell.append(list);
    });
    return cell;
  }

  function tableRow(row) {
    const cells = kColumns.map(({ title, isSize }, index) => {
      const now = row.now[index];
      const text = comparing ? difference(row.before[index], now, isSize) : readable(now, isSize);
      const cell = element("td", "number", text);
      cell.dataset.label = title;
      if (comparing) {
        const way = direction(row.before[index], now);
        if (way) cell.classList.add(way);
        cell.title = `from ${readable(row.before[index], isSize)} to ${readable(now, isSize)}`;
      }
      if (index === table.column) cell.classList.add("sorted");
      return cell;
    });
    return element("tr", "", ...cells, whereCell(row));
  }

  function drawTable() {
    const selected = selectedRows();
    const shown = Math.min(selected.length, table.most);
    byId("stacks").tBodies[0].replaceChildren(...selected.slice(0, shown).map(tableRow));
    byId("shown").textContent = `${count(shown)} of ${count(selected.length)} call stacks` + (comparing ? " that differ" : "");
    byId("more").hidden = shown === selected.length;
    for (const heading of byId("stacks").tHead.rows[0].cells) {
      if (heading.dataset.column === String(table.column)) {
        heading.setAttribute("aria-sort", table.descending ? "descending" : "ascending");
      } else {
        heading.removeAttribute("aria-sort");
      }
    }
  }

  function drawHeadings() {
    const line = byId("stacks").tHead.rows[0];
    for (const [index, { key, title }] of kColumns.entries()) {
      const button = element("button", "", title);
      button.type = "button";
      button.dataset.key = key;
      button.addEventListener("click", () => {
        table.descending = table.column === index ? !table.descending : true;
        table.column = index;
        drawTable();
      });
      const heading = element("th", "", button);
      heading.scope = "col";
      heading.dataset.column = index;
      line.append(heading);
    }
    const where = element("th", "where", "Where");
    where.scope = "col";
    line.append(where);
  }

  // ---- All of it ----

  let width = 0;
  function resized() {
    if (width === document.documentElement.clientWidth) return;
    width = document.documentElement.clientWidth;
    drawChart();
    drawFlame();
  }
  function later(action) {
    let timer = 0;
    return () => {
      clearTimeout(timer);
      timer = setTimeout(action, 120);
    };
  }

  table.column = Math.max(kColumns.findIndex(({ key }) => key === data.metric), 0);
  flame.metric = kMetrics.find(({ column }) => column === table.column) ?? kMetrics[0];
  byId("leaks").checked = data.leaks;
  drawHeader();
  drawMetrics();
  drawHeadings();
  drawTable();
  resized();
  byId("flame").addEventListener("keydown", flameKey);
  byId("flame").addEventListener("mouseleave", () => showDetails(flame.at));
  byId("flame-reset").addEventListener("click", resetZoom);
  byId("flame-search").addEventListener("input", later(searchFlame));
  byId("filter").addEventListener("input", later(() => {
    table.filter = byId("filter").value.trim().toLowerCase();
    table.most = kRowsAtOnce;
    drawTable();
  }));
  byId("leaks").addEventListener("change", drawTable);
  byId("more").addEventListener("click", () => { table.most += kRowsAtOnce; drawTable(); });
  new ResizeObserver(later(resized)).observe(document.documentElement);
  dark.addEventListener("change", () => { drawChart(); drawFlame(); });
})();
