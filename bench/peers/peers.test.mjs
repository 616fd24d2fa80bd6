// The peer tools as the comparison drives them: the harness must hand each its tolerance in the
// form it expects and read its output back correctly, or every figure of theirs is off.
import assert from 'node:assert/strict';
import { test } from 'node:test';

import { channelErrors } from './lib.mjs';
import { PEERS } from './peers.mjs';
import { loadThree, threePositions } from './threeside.mjs';
import { retargetClip } from 'three/examples/jsm/utils/SkeletonUtils.js';

test('peer simplifiers keep the distance tolerance they are given', () => {
  // y = sin(3x) has slopes up to 3, so a 2D distance of e allows a vertical error of at most
  // e * sqrt(1 + 9) < 3.2 e. A tolerance handed unsquared to the fitters that square it would
  // allow sqrt(e): 0.03 here, far past that bound.
  const points = [];
  for (let i = 0; i <= 400; ++i) points.push([i / 200, Math.sin((3 * i) / 200)]);
  for (const tool of PEERS) {
    for (const e of [0.001, 0.01]) {
      const reduced = tool.reduce(tool.prepare(points), e);
      const keys = tool.keys(reduced);
      const { largest } = channelErrors(points, tool.evaluator(reduced));
      assert.ok(largest <= 3.2 * e, `${tool.name} e=${e}: largest error ${largest}`);
      assert.ok(keys >= 2 && keys < points.length / 4, `${tool.name} e=${e}: ${keys} keys`);
    }
  }
});

// Three joints in a chain and a leg, six frames' worth of the tests' own numbers.
const CLIP = `HIERARCHY
ROOT Hips
{
  OFFSET 0 0 0
  CHANNELS 6 Xposition Yposition Zposition Zrotation Yrotation Xrotation
  JOINT Spine
  {
    OFFSET 0 10 0
    CHANNELS 3 Zrotation Yrotation Xrotation
    JOINT Head
    {
      OFFSET 0 5 0
      CHANNELS 3 Zrotation Yrotation Xrotation
      End Site
      {
        OFFSET 0 2 0
      }
    }
  }
  JOINT Leg
  {
    OFFSET 2 -8 0
    CHANNELS 3 Zrotation Yrotation Xrotation
    End Site
    {
      OFFSET 0 -8 0
    }
  }
}
MOTION
Frames: 2
Frame Time: 0.1
0 0 0 0 0 0 0 0 0 0 0 0 0 0 0
1 2 3 90 0 0 0 0 30 0 0 0 0 0 45
`;

test('three.js harness', () => {
  const names = ['Hips', 'Spine', 'Head', 'Leg'];
  {
    // Posing a prepared skeleton keeps its rest; without bind inverses from the rest pose
    // every bone would land on the origin.
    const clip = loadThree(CLIP);
    clip.skeleton.pose();
    clip.holder.updateMatrixWorld(true);
    const head = clip.skeleton.getBoneByName('Head').matrixWorld.elements;
    assert.deepEqual([head[12], head[13], head[14]], [0, 15, 0]);
  }
  {
    // A clip retargeted onto its own skeleton with the identity map plays back its own motion:
    // frame 1 turns the hips a quarter turn about z and bends the spine 30 degrees about x.
    const source = loadThree(CLIP);
    const target = loadThree(CLIP);
    const map = Object.fromEntries(names.map((n) => [n, n]));
    const out = retargetClip(target.holder, source.holder, source.clip, { names: map, hip: 'Hips' });
    const frames = threePositions(target, out, names);
    assert.equal(frames.length, 2);
    const expected = { Hips: [1, 2, 3], Spine: [-9, 2, 3],
                       Head: [-9 - 5 * Math.cos(Math.PI / 6), 2, 3 + 5 * Math.sin(Math.PI / 6)],
                       Leg: [1 + 8, 2 + 2, 3] };
    names.forEach((name, j) => expected[name].forEach((v, k) =>
      assert.ok(Math.abs(frames[1][j][k] - v) < 1e-4, `${name}[${k}]: ${frames[1][j][k]} vs ${v}`)));
  }
  {
    // A joint left out of the map keeps its rest rotation under its parent (as tarni-ca keeps an
    // undriven joint's rest): with the spine unmapped, the head hangs straight along the hips'
    // turned y axis instead of following the spine's 30 degrees.
    const source = loadThree(CLIP);
    const target = loadThree(CLIP);
    const map = { Hips: 'Hips', Head: 'Head', Leg: 'Leg' };
    const out = retargetClip(target.holder, source.holder, source.clip, { names: map, hip: 'Hips' });
    const head = threePositions(target, out, ['Head'])[1][0];
    [-14, 2, 3].forEach((v, k) => assert.ok(Math.abs(head[k] - v) < 1e-4, `Head[${k}]: ${head[k]}`));
  }
});
