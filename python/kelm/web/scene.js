// The 3-D scene: both arms from the URDF model, the master as a translucent
// ghost over the solid slave, an optional virtual wall, orbit and zoom.
import * as THREE from 'three';
import { OrbitControls } from 'three/examples/jsm/controls/OrbitControls.js';
import URDFLoader from 'urdf-loader';

const GHOST_COLOR = 0x4aa3ff;
const GHOST_OPACITY = 0.35;
const TOOL_LINK = 'tool0';

// The revolute joints on the way from the root to tool0, root first.
function armJointNames(robot) {
  const names = [];
  for (let node = robot.links[TOOL_LINK]; node && node !== robot; node = node.parent) {
    if (node.isURDFJoint && node.jointType !== 'fixed') names.unshift(node.urdfName);
  }
  return names;
}

// The prismatic joints that hang below tool0: the gripper's fingers.
function fingerJointNames(robot) {
  const names = [];
  robot.links[TOOL_LINK].traverse((node) => {
    if (node.isURDFJoint && node.jointType === 'prismatic') names.push(node.urdfName);
  });
  return names;
}

function makeGhost(robot) {
  robot.traverse((node) => {
    if (!node.isMesh) return;
    node.material = new THREE.MeshStandardMaterial({
      color: GHOST_COLOR, transparent: true, opacity: GHOST_OPACITY, depthWrite: false,
    });
    node.renderOrder = 1;
  });
}

// One drawn arm: sets joints and gripper, and reads back what it draws.
class DrawnArm {
  constructor(robot) {
    this.robot = robot;
    this.joints = armJointNames(robot);
    this.fingers = fingerJointNames(robot);
  }

  // joints [rad]; gripper opening [m], shared by the fingers.
  show(joints, gripper) {
    const count = Math.min(joints.length, this.joints.length);
    for (let i = 0; i < count; ++i) this.robot.setJointValue(this.joints[i], joints[i]);
    for (const finger of this.fingers) this.robot.setJointValue(finger, gripper / 2);
  }

  drawnJoints() {
    return this.joints.map((name) => this.robot.joints[name].angle);
  }
}

function loadRobot(url) {
  return new Promise((resolve, reject) => new URDFLoader().load(url, resolve, undefined, reject));
}

function addWall(world, height) {
  const plane = new THREE.Mesh(
    new THREE.PlaneGeometry(1.6, 1.6),
    new THREE.MeshBasicMaterial({ color: 0xff5a5a, transparent: true, opacity: 0.18, side: THREE.DoubleSide, depthWrite: false }),
  );
  plane.position.set(0.4, 0, height);  // the model's frame: z up
  world.add(plane);
  const edge = new THREE.LineSegments(new THREE.EdgesGeometry(plane.geometry), new THREE.LineBasicMaterial({ color: 0xff5a5a }));
  edge.position.copy(plane.position);
  world.add(edge);
}

export class Scene {
  constructor(container) {
    this.container = container;
    this.renderer = new THREE.WebGLRenderer({ antialias: true, preserveDrawingBuffer: true });
    this.renderer.setPixelRatio(window.devicePixelRatio);
    container.appendChild(this.renderer.domElement);
    this.scene = new THREE.Scene();
    this.scene.background = new THREE.Color(0x1b1e25);
    this.camera = new THREE.PerspectiveCamera(45, 1, 0.01, 50);
    this.camera.position.set(1.6, 1.1, 1.6);
    this.controls = new OrbitControls(this.camera, this.renderer.domElement);
    this.controls.target.set(0.2, 0.45, 0);
    this.controls.update();
    this.scene.add(new THREE.HemisphereLight(0xffffff, 0x334455, 1.6));
    const sun = new THREE.DirectionalLight(0xffffff, 1.8);
    sun.position.set(2, 4, 3);
    this.scene.add(sun);
    this.scene.add(new THREE.GridHelper(2, 20, 0x555a66, 0x30343d));
    // URDF is z-up, three.js y-up.
    this.world = new THREE.Group();
    this.world.rotation.x = -Math.PI / 2;
    this.scene.add(this.world);
    new ResizeObserver(() => this.resize()).observe(container);
    this.resize();
  }

  async loadArms(modelUrl, wallHeight) {
    const [slave, master] = await Promise.all([loadRobot(modelUrl), loadRobot(modelUrl)]);
    makeGhost(master);
    this.world.add(slave, master);
    if (wallHeight !== null && wallHeight !== undefined) addWall(this.world, wallHeight);
    this.slave = new DrawnArm(slave);
    this.master = new DrawnArm(master);
  }

  resize() {
    const { clientWidth: width, clientHeight: height } = this.container;
    if (width === 0 || height === 0) return;
    this.renderer.setSize(width, height);
    this.camera.aspect = width / height;
    this.camera.updateProjectionMatrix();
  }

  render() {
    this.renderer.render(this.scene, this.camera);
  }
}
