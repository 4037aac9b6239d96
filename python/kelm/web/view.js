// The live view page: asks the server for the newest state once per animation
// frame (one request in flight, so nothing queues), draws both arms, feeds
// the plots and the status bar. window.kelmView exposes what is drawn.
import { Scene } from './scene.js';
import { Plots } from './plots.js';

const PLOT_PERIOD_MS = 100;
const RATE_WINDOW_S = 1.0;
const MIRRORED_JOINTS = [0, 3, 5];

const view = { ready: false, states: 0, fps: 0, drawn: { master: [], slave: [] }, arms: {} };
window.kelmView = view;

// The slave's joints for the master's when the teleoperation mirrors.
function mirrored(joints) {
  if (joints.length !== 6) return joints;
  return joints.map((value, i) => (MIRRORED_JOINTS.includes(i) ? -value : value));
}

// Frames per second of one stream over the last RATE_WINDOW_S.
class RateMeter {
  constructor() { this.samples = []; }

  add(time, frames) {
    this.samples.push([time, frames]);
    while (this.samples.length > 2 && this.samples[0][0] < time - RATE_WINDOW_S) this.samples.shift();
    const [t0, f0] = this.samples[0];
    return time > t0 ? (frames - f0) / (time - t0) : 0;
  }
}

function describeArm(role, arm, rate) {
  const link = !arm.connected ? ['bad', 'disconnected'] : !arm.streaming ? ['warn', 'no frames'] : ['ok', 'connected'];
  const servo = arm.servo ? 'servo on' : 'servo off';
  return `<b>${role}</b> ${arm.name ?? ''} <span class="${link[0]}">${link[1]}</span> · ${servo}`
    + ` · mode ${arm.fsm_name ?? '?'} · ${arm.state_name ?? '?'} · ${rate.toFixed(0)} Hz · gaps ${arm.gaps}`;
}

function describeError(arms) {
  const latest = Object.entries(arms).filter(([, arm]) => arm.error).sort((a, b) => a[1].error.age - b[1].error.age)[0];
  if (!latest) return '';
  const [role, { error }] = latest;
  return `<span class="bad">${role} ${error.code}: ${error.text}</span> (${error.age.toFixed(0)} s ago)`;
}

class Page {
  constructor(config, scene) {
    this.config = config;
    this.scene = scene;
    this.plots = null;
    this.rates = { master: new RateMeter(), slave: new RateMeter() };
    this.lastPlot = 0;
    this.frameTimes = [];
  }

  take(state) {
    const { master, slave } = state.arms;
    const masterJoints = this.config.mirror ? mirrored(master.joints) : master.joints;
    this.scene.master.show(masterJoints, master.gripper);
    this.scene.slave.show(slave.joints, slave.gripper);
    view.drawn = { master: this.scene.master.drawnJoints(), slave: this.scene.slave.drawnJoints() };
    view.arms = state.arms;
    view.states += 1;
    const rates = { master: this.rates.master.add(state.time, master.frames), slave: this.rates.slave.add(state.time, slave.frames) };
    this.showStatus(state, rates);
    this.plot(state, masterJoints, rates);
  }

  plot(state, masterJoints, rates) {
    const { master, slave } = state.arms;
    const dof = Math.max(masterJoints.length, slave.joints.length);
    if (!this.plots && dof > 0) this.plots = new Plots(document.getElementById('plots'), dof);
    if (!this.plots) return;
    this.plots.add(state.time, {
      master: masterJoints, slave: slave.joints, lag: state.lag,
      masterRate: rates.master, slaveRate: rates.slave, masterGaps: master.gaps, slaveGaps: slave.gaps,
      torque: slave.external_tau,
    });
    const now = performance.now();
    if (now - this.lastPlot >= PLOT_PERIOD_MS) {
      this.lastPlot = now;
      this.plots.draw();
    }
  }

  showStatus(state, rates) {
    for (const role of ['master', 'slave']) {
      document.getElementById(`status-${role}`).innerHTML = describeArm(role, state.arms[role], rates[role]);
    }
    const lag = state.lag === null ? '–' : `${(state.lag * 1000).toFixed(0)} ms`;
    document.getElementById('status-link').textContent = `lag ${lag} · page ${view.fps.toFixed(0)} fps`;
    document.getElementById('status-error').innerHTML = describeError(state.arms);
  }

  countFrame(now) {
    this.frameTimes.push(now);
    while (this.frameTimes.length > 2 && this.frameTimes[0] < now - 1000) this.frameTimes.shift();
    const span = now - this.frameTimes[0];
    view.fps = span > 0 ? ((this.frameTimes.length - 1) * 1000) / span : 0;
  }
}

function connect(page) {
  const socket = new WebSocket(`ws://${location.host}/state`);
  let waiting = false;
  let newest = null;
  socket.onopen = () => { socket.send('next'); waiting = true; };
  socket.onmessage = (message) => { newest = JSON.parse(message.data); waiting = false; };
  socket.onclose = () => {
    document.getElementById('status-link').innerHTML = '<span class="bad">view server gone</span>';
  };
  const frame = (now) => {
    if (newest) {
      page.take(newest);
      newest = null;
    }
    if (!waiting && socket.readyState === WebSocket.OPEN) { socket.send('next'); waiting = true; }
    page.countFrame(now);
    page.scene.render();
    requestAnimationFrame(frame);
  };
  requestAnimationFrame(frame);
}

// The cameras' MJPEG streams, each in an <img> that the browser keeps updating.
function showCameras(cameras) {
  const section = document.getElementById('cameras');
  for (const camera of cameras) {
    const figure = document.createElement('figure');
    const image = document.createElement('img');
    image.src = camera.url;
    image.alt = camera.name;
    const caption = document.createElement('figcaption');
    caption.textContent = camera.name;
    figure.append(image, caption);
    section.append(figure);
  }
  section.hidden = cameras.length === 0;
}

async function start() {
  const config = await (await fetch('/config.json')).json();
  document.title = `Kelm live view: ${config.master} → ${config.slave}`;
  showCameras(config.cameras || []);
  const scene = new Scene(document.getElementById('scene'));
  await scene.loadArms('/model.urdf', config.wall);
  const page = new Page(config, scene);
  view.ready = true;
  connect(page);
}

start();
