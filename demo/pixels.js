'use strict';
// Screenshots compared pixel by pixel: a scenario must show what the page
// shows without any of the help it had.
const fs = require('node:fs');
const { PNG } = require('pngjs');

// Chromium antialiases the rounded corners of an image a shade differently
// from one load to the next (by up to 7 levels a channel, on a few dozen
// pixels along the corners' edges), depending on how the image reached the
// compositor. Differences that small and that few are edges, not content.
const EDGE_LEVELS = 8;
const EDGE_PIXELS = 1000;

// How the PNG file `b` differs from `a`: { differing, maxLevels, same }.
// `same` holds when they are equal or differ only as antialiased edges do;
// sizes that differ are never the same.
function comparePixels(a, b) {
  const x = PNG.sync.read(fs.readFileSync(a));
  const y = PNG.sync.read(fs.readFileSync(b));
  if (x.width !== y.width || x.height !== y.height) return { differing: null, maxLevels: null, same: false };
  let differing = 0;
  let maxLevels = 0;
  for (let i = 0; i < x.data.length; i += 4) {
    let pixel = 0;
    for (let c = 0; c < 4; c++) pixel = Math.max(pixel, Math.abs(x.data[i + c] - y.data[i + c]));
    if (pixel === 0) continue;
    differing++;
    maxLevels = Math.max(maxLevels, pixel);
  }
  return { differing, maxLevels, same: differing <= EDGE_PIXELS && maxLevels <= EDGE_LEVELS };
}

// For a table: "equal", "N edge px ±L", or what differs.
function describe({ differing, maxLevels, same }) {
  if (differing === null) return 'other size';
  if (differing === 0) return 'equal';
  return same ? `${differing} edge px ±${maxLevels}` : `${differing} px differ, up to ${maxLevels}`;
}

module.exports = { comparePixels, describe };
