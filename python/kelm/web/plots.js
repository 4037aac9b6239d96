// The plots of the last WINDOW_S seconds, one sample per state the page got.
import uPlot from 'uplot';

export const WINDOW_S = 10;
const JOINT_COLORS = ['#e6194b', '#3cb44b', '#ffe119', '#4363d8', '#f58231', '#911eb4', '#46f0f0'];
const AXIS = { stroke: '#aab', grid: { stroke: '#2c3038' }, ticks: { stroke: '#2c3038' } };

// A growing set of columns, trimmed to the window.
class Series {
  constructor(columns) {
    this.data = Array.from({ length: columns + 1 }, () => []);
  }

  push(time, values) {
    this.data[0].push(time);
    for (let i = 1; i < this.data.length; ++i) this.data[i].push(values[i - 1] ?? null);
    const first = this.data[0].findIndex((t) => t >= time - WINDOW_S);
    if (first > 0) for (const column of this.data) column.splice(0, first);
  }
}

// Times on the x axis are the server's clock [s]; ticks read as seconds before the newest sample.
function agoTicks(plot, splits) {
  const newest = plot.data[0][plot.data[0].length - 1] ?? 0;
  return splits.map((t) => (t - newest).toFixed(0));
}

function chart(parent, title, series, { wide = false, height = 100, legend = true, count = false } = {}) {
  const box = document.createElement('div');
  if (wide) box.className = 'wide';
  parent.appendChild(box);
  const width = () => Math.max(200, box.clientWidth - 4);
  const plot = new uPlot({
    title, width: width(), height,
    scales: { x: { time: false }, ...(count ? { count: { auto: true } } : {}) },
    axes: [{ ...AXIS, size: 24, values: agoTicks }, { ...AXIS, size: 44 },
      ...(count ? [{ ...AXIS, scale: 'count', side: 1, size: 40, grid: { show: false } }] : [])],
    legend: { show: legend, live: false },
    series: [{}, ...series],
  }, [[]], box);
  new ResizeObserver(() => plot.setSize({ width: width(), height })).observe(box);
  return plot;
}

function jointSeries(dof, label) {
  return Array.from({ length: dof }, (_, i) => ({ label: `${label}${i + 1}`, stroke: JOINT_COLORS[i % JOINT_COLORS.length], width: 1 }));
}

export class Plots {
  constructor(container, dof) {
    this.dof = dof;
    this.joints = [];
    for (let i = 0; i < dof; ++i) {
      this.joints.push({
        series: new Series(2),
        plot: chart(container, `joint ${i + 1} [rad]: master blue dashed, slave orange`, [
          { label: 'master', stroke: '#4aa3ff', width: 1, dash: [6, 3] },
          { label: 'slave', stroke: '#f0a040', width: 1.5 },
        ], { height: 90, legend: false }),
      });
    }
    this.error = { series: new Series(dof), plot: chart(container, 'tracking error, master - slave [rad]', jointSeries(dof, 'j'), { wide: true }) };
    this.lag = { series: new Series(1), plot: chart(container, 'slave lag behind master [ms]', [{ label: 'lag', stroke: '#c0e060', width: 1.5 }]) };
    this.rate = {
      series: new Series(4),
      plot: chart(container, 'frame rate [Hz]; frames missed (count gaps)', [
        { label: 'master Hz', stroke: '#4aa3ff', width: 1.5 },
        { label: 'slave Hz', stroke: '#f0a040', width: 1.5 },
        { label: 'master gaps', stroke: '#4aa3ff', width: 1, dash: [2, 3], scale: 'count' },
        { label: 'slave gaps', stroke: '#f0a040', width: 1, dash: [2, 3], scale: 'count' },
      ], { count: true }),
    };
    this.torque = { series: new Series(dof), plot: chart(container, 'external torque at the slave, fed back in force mode [Nm]', jointSeries(dof, 'j'), { wide: true }) };
  }

  // One sample: master and slave joints [rad] (master already mirrored when
  // the teleoperation mirrors), lag [s] or null, rates [Hz], missed frames,
  // the slave's external torques or null.
  add(time, sample) {
    const { master, slave } = sample;
    this.joints.forEach((joint, i) => joint.series.push(time, [master[i], slave[i]]));
    this.error.series.push(time, Array.from({ length: this.dof }, (_, i) => (
      master[i] !== undefined && slave[i] !== undefined ? master[i] - slave[i] : null)));
    this.lag.series.push(time, [sample.lag === null ? null : sample.lag * 1000]);
    this.rate.series.push(time, [sample.masterRate, sample.slaveRate, sample.masterGaps, sample.slaveGaps]);
    this.torque.series.push(time, sample.torque ?? []);
  }

  draw() {
    for (const { series, plot } of [...this.joints, this.error, this.lag, this.rate, this.torque]) {
      plot.setData(series.data);
    }
  }
}
