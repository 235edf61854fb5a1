// Processor time of the module alone, outside of a browser: medians and minima.
//
//     node tests/page/measure_module.js build/page/page/velmar_2d_page.wasm
'use strict';

const compiled = new WebAssembly.Module(require('fs').readFileSync(process.argv[2]));
const imports = {};
const surroundings = {
  clock_time_get: (clock, precision, place) => {
    const now = BigInt(Math.round(performance.now() * 1e6));
    new DataView(wasm.memory.buffer).setBigUint64(place, now, true);
    return 0;
  },
};
for (const { module, name } of WebAssembly.Module.imports(compiled)) {
  imports[module] = imports[module] || {};
  imports[module][name] = surroundings[name] || (() => 0);
}
const { exports: wasm } = new WebAssembly.Instance(compiled, imports);
wasm._initialize();

const text = (address) => {
  const bytes = new Uint8Array(wasm.memory.buffer, address);
  return Buffer.from(bytes.subarray(0, bytes.indexOf(0))).toString();
};
const show = (scene, anew) => {
  const bytes = Buffer.from(scene);
  new Uint8Array(wasm.memory.buffer, wasm.page_input(bytes.length), bytes.length).set(bytes);
  return JSON.parse(text(wasm.page_show(anew)));
};
const spent = () => {
  const { user, system } = process.cpuUsage();
  return (user + system) / 1000;
};
const told = (times) => {
  times.sort((a, b) => a - b);
  return `${times[times.length >> 1].toFixed(1)} (${times[0].toFixed(1)})`;
};

function measure(name, scene, look, pictures) {
  const update = [], whole = [], draw = [];
  let frame = 30, report = show(`${scene}&frame=${frame}`, 1);
  wasm.page_look(...look, 0, 1, 1);
  wasm.page_view(916, 686, 0.75, 0.5, 642);
  for (let i = 0; i < pictures; ++i) {
    const begin = spent();
    report = show(`${scene}&frame=${++frame}`, 0);
    const middle = spent();
    wasm.page_draw();
    draw.push(spent() - middle);
    whole.push(middle - begin);
    update.push(report.milliseconds);
  }
  console.log(`${name}: ${report.nodes} nodes, update on the clock ${told(update)} ms, ` +
    `with all around it ${told(whole)} ms, pixels ${told(draw)} ms`);
}

const ring = 'field=ring&limit=14&squares=24x16&finest=';
measure('a ring', ring + '0.002&slope=0.2', [1, 0, 0], 100);
measure('the same, as cells', ring + '0.002&slope=0.2', [0, 1, 0], 100);
measure('a fine ring', ring + '0.0018&slope=0.05', [1, 0, 0], 20);
measure('the same, by update', ring + '0.0018&slope=0.05&method=update', [1, 0, 0], 20);
