// The three.js side of the retargeting comparison, headless under node: clips parsed from text,
// skeletons made ready for SkeletonUtils, and a retargeted clip played back into world positions.
import { Object3D } from 'three';
import { BVHLoader } from 'three/examples/jsm/loaders/BVHLoader.js';

// A parsed clip ready for three.js: the skeleton under a holder object (what retargetClip
// expects of both sides), world matrices computed and bind inverses taken from the rest pose.
// Without the last two steps every bone collapses onto the origin when the skeleton is posed.
export function loadThree(text) {
  // The loader parses text: under node there is no file loading of its own.
  const { skeleton, clip } = new BVHLoader().parse(text);
  const holder = new Object3D();
  holder.add(skeleton.bones[0]);
  holder.skeleton = skeleton;
  holder.updateMatrixWorld(true);
  skeleton.calculateInverses();
  return { holder, skeleton, clip };
}

// three.js's output clip played frame by frame on the target skeleton: world positions of the
// named joints. Tracks hold one key per frame, so frame f is read straight from index f.
export function threePositions(target, clip, names) {
  const tracks = clip.tracks.map((track) => {
    const [, bone, property] = /^\.bones\[(.+)\]\.(quaternion|position)$/.exec(track.name);
    return { bone: target.skeleton.getBoneByName(bone), property, values: track.values,
             ignore: bone === 'ENDSITE' };
  }).filter((t) => !t.ignore);
  const frames = Math.min(...tracks.map((t) => t.values.length / (t.property === 'position' ? 3 : 4)));
  const bones = names.map((name) => target.skeleton.getBoneByName(name));
  target.skeleton.pose();
  const out = [];
  for (let f = 0; f < frames; ++f) {
    for (const t of tracks) {
      if (t.property === 'quaternion') t.bone.quaternion.fromArray(t.values, f * 4);
      else t.bone.position.fromArray(t.values, f * 3);
    }
    target.holder.updateMatrixWorld(true);
    out.push(bones.map((bone) => (bone ? [bone.matrixWorld.elements[12],
                                           bone.matrixWorld.elements[13],
                                           bone.matrixWorld.elements[14]] : null)));
  }
  return out;
}

