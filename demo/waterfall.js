'use strict';
// The report as a picture: one waterfall per scenario on a common time
// scale, each request's bar coloured by where it was answered from, with
// first contentful paint, largest contentful paint and load marked. The
// flow's times count from the click; what happened before it starts at 0.
const COLORS = { engine: '#8a94a0', network: '#3f7cc4', package: '#2e9e6a', prefetch: '#d08a1c',
  'first chunk': '#c8553d', 'prefetch+first chunk': '#9b3fb5', 'sw cache': '#1a9aa0',
  'browser cache': '#b8a11c' };
const MARKS = [['fcp', 'FCP', '#1b8a3a'], ['lcp', 'LCP', '#7d3cc8'], ['load', 'load', '#444']];

const escape = (text) => String(text).replace(/[&<>"]/g, (c) => ({ '&': '&amp;', '<': '&lt;',
  '>': '&gt;', '"': '&quot;' })[c]);

function section(run, scale, width) {
  const x = (ms) => `${((ms / scale) * width).toFixed(1)}px`;
  const rows = run.requests
    .filter((request) => request.browser)
    .sort((a, b) => a.browser.start - b.browser.start)
    .map((request) => {
      const [start, responseStart, end] = ['start', 'responseStart', 'end']
        .map((key) => Math.max(0, request.browser[key]));
      const color = COLORS[request.source] || '#999';
      return '<div class="row">' +
        `<div class="label">${escape(request.path)} <i style="color:${color}">${escape(request.source)}</i></div>` +
        `<div class="lane"><div class="wait" style="left:${x(start)};width:${x(responseStart - start)}"></div>` +
        `<div class="recv" style="left:${x(responseStart)};width:${x(Math.max(end - responseStart, 1))};` +
        `background:${color}"></div></div></div>`;
    }).join('');
  // Labels are stacked so that marks close together stay readable.
  const marks = MARKS.filter(([key]) => run[key] !== null).map(([key, label, color], i) =>
    `<div class="mark" style="left:${x(run[key])};border-color:${color}">` +
    `<span style="color:${color};top:${i * 11}px">${label}</span></div>`).join('');
  const figures = MARKS.concat([['dcl', 'DCL']]).filter(([key]) => run[key] !== null)
    .map(([key, label]) => `${label} ${Math.round(run[key])}`).join(' · ');
  return `<section><h2>${escape(run.scenario)} <small>${figures} ms</small></h2>` +
    `<div class="chart">${marks}${rows}</div></section>`;
}

// `runs`: one representative run per scenario; `title`: the conditions.
function waterfallHtml(runs, title) {
  const width = 640;
  const longest = Math.max(...runs.flatMap((run) => [run.load || 0,
    ...run.requests.filter((r) => r.browser).map((r) => r.browser.end)]));
  const scale = Math.ceil(longest / 200) * 200;
  const ticks = [];
  for (let ms = 0; ms <= scale; ms += 200) {
    ticks.push(`<span style="left:${((ms / scale) * width).toFixed(1)}px">${ms}</span>`);
  }
  const legend = Object.entries(COLORS).map(([source, color]) =>
    `<span><b style="background:${color}"></b>${escape(source)}</span>`).join('');
  return `<!DOCTYPE html><html><head><meta charset="utf-8"><title>Velora waterfall</title><style>
body{font:13px/1.3 "DejaVu Sans",Arial,sans-serif;margin:16px;color:#222;background:#fff;width:${width + 300}px}
h1{font-size:17px;margin:0 0 4px}h2{font-size:14px;margin:14px 0 4px}
h2 small{font-weight:normal;color:#555;margin-left:8px}
.legend span{margin-right:12px}.legend b{display:inline-block;width:10px;height:10px;margin-right:4px}
.chart{position:relative;padding:34px 0 4px}.row{display:flex;height:17px;align-items:center}
.label{width:290px;flex:none;overflow:hidden;white-space:nowrap;font-size:12px}
.label i{font-style:normal;font-size:11px}
.lane{position:relative;width:${width}px;height:11px;background:#f3f4f6}
.wait{position:absolute;height:100%;background:#d5dae0}.recv{position:absolute;height:100%}
.mark{position:absolute;top:0;bottom:0;margin-left:290px;border-left:2px solid;z-index:1;opacity:.8}
.mark span{position:absolute;top:0;left:3px;font-size:10px;white-space:nowrap}
.axis{position:relative;margin-left:290px;height:14px;color:#777;font-size:10px}
.axis span{position:absolute}</style></head><body>
<h1>${escape(title)}</h1><div class="legend">${legend}
<span><b style="background:#d5dae0"></b>waiting for the first byte</span></div>
${runs.map((run) => section(run, scale, width)).join('\n')}
<div class="axis">${ticks.join('')}</div><div style="margin-left:290px;color:#777">ms after navigation start (the flow: after the click)</div>
</body></html>`;
}

module.exports = { waterfallHtml };
