// The peer curve simplifiers behind one face: prepare (the tool's input form, made outside any
// timed region), reduce (the call that is timed), keys (how many the output keeps) and evaluator
// (the output's value at a time). Tolerances are absolute 2D distances e.
import { createRequire } from 'node:module';

import { bezierValueAt, linearValueAt } from './lib.mjs';

const require = createRequire(import.meta.url);
const fitCurve = require('fit-curve');
const simplify = require('simplify-js');
// paper-core is the build without the DOM and canvas bindings; paths need a project to live in.
const paper = require('paper/dist/paper-core.js');
paper.setup(new paper.Size(1000, 1000));

export const PEERS = [
  {
    name: 'fit-curve',
    prepare: (points) => points,
    // fit-curve compares its tolerance with squared distances.
    reduce: (points, e) => fitCurve(points, e * e),
    keys: (segments) => (segments.length === 0 ? 1 : segments.length + 1),
    evaluator: (segments) => (t) => bezierValueAt(segments, t),
  },
  {
    name: 'paper',
    prepare: (points) => new paper.Path({ segments: points, insert: false }),
    // Path.simplify compares its tolerance with squared distances too.
    reduce: (path, e) => {
      path.simplify(e * e);
      return path;
    },
    keys: (path) => path.segments.length,
    evaluator: (path) => {
      const s = path.segments;
      const segments = [];
      for (let i = 0; i + 1 < s.length; ++i) {
        const a = s[i].point, b = s[i + 1].point;
        const out = s[i].handleOut, back = s[i + 1].handleIn;
        segments.push([[a.x, a.y], [a.x + out.x, a.y + out.y], [b.x + back.x, b.y + back.y],
                       [b.x, b.y]]);
      }
      if (segments.length === 0 && s.length > 0) return () => s[0].point.y;
      return (t) => bezierValueAt(segments, t);
    },
  },
  {
    name: 'simplify-js',
    prepare: (points) => points.map(([x, y]) => ({ x, y })),
    reduce: (points, e) => simplify(points, e, true),
    keys: (points) => points.length,
    evaluator: (points) => (t) => linearValueAt(points, t),
  },
];

