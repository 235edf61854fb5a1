// Everything that takes time runs here, beside the page: the mesh, and the pixels of its pictures.
//
// A page on the disk may not load a worker from a file. So this is a function whose text the page
// hands to the worker, and the WebAssembly module comes with the first message.
'use strict';

function velmarWorker() {
  let module, memory;

  const text = (address) => {
    const bytes = new Uint8Array(memory.buffer, address);
    return new TextDecoder().decode(bytes.subarray(0, bytes.indexOf(0)));
  };
  const put = (address) => {
    const bytes = new TextEncoder().encode(address);
    const place = module.page_input(bytes.length);
    new Uint8Array(memory.buffer, place, bytes.length).set(bytes);
  };

  // What the module's standard library asks of its surroundings: a clock, and nowhere to print.
  const surroundings = {
    clock_time_get: (clock, precision, place) => {
      const nanoseconds = BigInt(Math.round(performance.now() * 1e6));
      new DataView(memory.buffer).setBigUint64(place, nanoseconds, true);
      return 0;
    },
    fd_write: () => 8,
    fd_read: () => 8,
    fd_close: () => 8,
    fd_seek: () => 8,
    proc_exit: (status) => { throw new Error('the module ended with status ' + status); },
    emscripten_notify_memory_growth: () => {},
  };

  async function load(bytes) {
    const compiled = await WebAssembly.compile(bytes);
    const imports = {};
    for (const { module, name } of WebAssembly.Module.imports(compiled)) {
      imports[module] = imports[module] || {};
      imports[module][name] = surroundings[name];
    }
    module = (await WebAssembly.instantiate(compiled, imports)).exports;
    memory = module.memory;
    module._initialize();
  }

  // A request: scene and anew where the mesh changes; look, view and touch say what is drawn.
  function work(request) {
    const start = performance.now();
    const answer = { view: request.view };
    if (request.scene !== null) {
      put(request.scene);
      answer.report = JSON.parse(text(module.page_show(request.anew ? 1 : 0)));
    }
    if (request.fingerprint) answer.fingerprint = text(module.page_fingerprint());
    module.page_look(...request.look);
    module.page_view(...request.view);
    if (request.svg) answer.svg = text(module.page_svg());
    if (request.touch) {
      const told = text(module.page_touch(...request.touch));
      answer.node = told ? JSON.parse(told) : null;
    } else {
      module.page_leave();
    }
    const begin = performance.now();
    const [width, height] = request.view;
    const pixels = module.page_draw();
    answer.pixels = memory.buffer.slice(pixels, pixels + 4 * width * height);
    answer.drawn = performance.now() - begin;
    answer.worked = performance.now() - start;  // all of it
    postMessage(answer, [answer.pixels]);
  }

  onmessage = async (message) => {
    try {
      if (message.data.module) {
        await load(message.data.module);
        postMessage({ loaded: true });
      } else {
        work(message.data);
      }
    } catch (error) {
      postMessage({ failed: String(error) });
    }
  };
}
