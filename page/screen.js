// The canvas: asks the worker for pictures, one at a time, and turns mouse, fingers and keys into
// wishes. While the worker is busy the last picture is moved and stretched in its place, so that the
// page answers at once whatever the mesh takes.
'use strict';

// `state` is what the address holds. `told` is called with each answer, `changed` where the state
// was changed here, `failed` with a line where no more pictures come.
function velmarScreen(canvas, state, { told, changed, failed }) {
  const pen = canvas.getContext('2d');
  const sharpness = () => Math.min(3, window.devicePixelRatio || 1);
  const longestWait = 12000;  // milliseconds
  let domain = { width: 1.5, height: 1 };
  let worker = null, ready = false, waiting = false, watch = 0;
  let scene = null, anew = true, dirty = true, settleAt = 0;
  let sentFrame = 0, firstPicture = 0;
  let touch = null, shown = null, wantSvg = null, wantPrint = null;

  // ---------------------------------------------------------------------------------------------
  // The view: a point of the domain in the middle, and pixels of the page for a unit
  // ---------------------------------------------------------------------------------------------

  const box = () => canvas.parentElement.getBoundingClientRect();
  const fitting = () => {
    const { width, height } = box();
    const rim = Math.min(24, 0.04 * width);
    return [domain.width / 2, domain.height / 2,
      Math.max(10, Math.min((width - 2 * rim) / domain.width, (height - 2 * rim) / domain.height))];
  };
  const view = () => state.view || fitting();
  const place = (event) => {
    const { left, top, width, height } = box();
    const [x, y, scale] = view();
    return [x + (event.clientX - left - width / 2) / scale,
      y - (event.clientY - top - height / 2) / scale];
  };
  const setView = (x, y, scale) => {
    const within = (value, size) => Math.max(-0.5 * size, Math.min(1.5 * size, value));
    const finest = 1 / 16 / 2 ** 12;
    state.view = [within(x, domain.width), within(y, domain.height),
      Math.max(40, Math.min(40 / finest, scale))];
    dirty = true;
    stretch();
    changed();
  };
  const zoom = (factor, about) => {
    const [x, y, scale] = view();
    const [px, py] = about || [x, y];
    const by = Math.max(40, Math.min(40 * 16 * 2 ** 12, factor * scale)) / scale;
    setView(px + (x - px) / by, py + (y - py) / by, scale * by);
  };
  const pan = (right, down) => {
    const [x, y, scale] = view();
    setView(x - right / scale, y + down / scale, scale);
  };
  const fit = () => { state.view = null; dirty = true; stretch(); changed(); };

  // Shows the last picture where the view is now.
  function stretch() {
    if (!shown) return;
    const [x, y, scale] = view();
    const [width, height, oldX, oldY, oldScale] = shown;
    const k = sharpness(), by = scale * k / oldScale;
    const right = (oldX - x) * scale, down = (y - oldY) * scale;
    const size = box();
    canvas.style.width = width / k + 'px';
    canvas.style.height = height / k + 'px';
    canvas.style.transform = `translate(${(size.width - width / k) / 2 + right}px,` +
      `${(size.height - height / k) / 2 + down}px) scale(${by})`;
  }

  // ---------------------------------------------------------------------------------------------
  // The worker
  // ---------------------------------------------------------------------------------------------

  async function unpack() {
    const bytes = Uint8Array.from(atob(velmarModule), (c) => c.charCodeAt(0));
    const stream = new Blob([bytes]).stream().pipeThrough(new DecompressionStream('gzip'));
    return new Response(stream).arrayBuffer();
  }

  async function start() {
    if (typeof WebAssembly !== 'object' || typeof Worker !== 'function' ||
        typeof DecompressionStream !== 'function') {
      failed('This browser has no WebAssembly, or is too old for this page, so that the mesh ' +
             'cannot be computed here. Any browser since 2023 will do.');
      return;
    }
    ready = waiting = false;
    const source = new Blob([`(${velmarWorker})();`], { type: 'text/javascript' });
    const address = URL.createObjectURL(source);
    worker = new Worker(address);
    worker.onmessage = (message) => receive(message.data);
    worker.onerror = (event) => restart(`The computation ended: ${event.message}.`);
    const module = await unpack();
    worker.postMessage({ module }, [module]);
  }

  function restart(line) {
    clearTimeout(watch);
    worker.terminate();
    start();
    scene = velmarAddress.scene(state);  // is not asked for again before something changes
    anew = true;
    told({ report: { message: line } });
  }

  function receive(answer) {
    if (answer.loaded) {
      ready = true;
      return;
    }
    clearTimeout(watch);
    waiting = false;
    if (answer.failed) {
      restart(`The computation ended: ${answer.failed}.`);
      return;
    }
    const [width, height] = answer.view;
    if (canvas.width !== width || canvas.height !== height) {
      canvas.width = width;
      canvas.height = height;
    }
    pen.putImageData(new ImageData(new Uint8ClampedArray(answer.pixels), width, height), 0, 0);
    shown = answer.view;
    firstPicture = firstPicture || performance.now();
    if (answer.report) {
      const { width: w, height: h } = answer.report;
      if (w !== domain.width || h !== domain.height) {
        domain = { width: w, height: h };
        dirty = true;
      }
      // Waves that take long come in parts.
      if (velmarAddress.moves(state) && answer.report.frame < sentFrame &&
          !answer.report.message) {
        scene = null;
      }
    }
    stretch();
    if (answer.svg) { wantSvg(answer.svg); wantSvg = null; }
    if (answer.fingerprint) { wantPrint(answer.fingerprint); wantPrint = null; }
    told(answer);
  }

  const isDark = () => state.theme === 'dark' ||
    (state.theme === 'auto' && matchMedia('(prefers-color-scheme: dark)').matches);

  const look = () => [state.show !== 'cells' ? 1 : 0, state.show !== 'links' ? 1 : 0,
    state.colour === 'value' ? 1 : 0, isDark() ? 1 : 0, 1, sharpness()];

  // Once for each picture of the browser: asks for what is not up to date.
  function tick(now) {
    requestAnimationFrame(tick);
    if (!worker || !ready || waiting) return;
    if (state.playing && velmarAddress.moves(state)) {
      state.frame = Math.min(1e6, state.frame + 1);
    }
    const wanted = velmarAddress.scene(state);
    if (settleAt && now > settleAt) {
      // At rest: exactly the mesh that the address stands for.
      settleAt = 0;
      anew = true;
      scene = null;
    }
    const isNew = wanted !== scene;
    if (!isNew && !dirty && !wantSvg && !wantPrint) return;
    const { width, height } = box();
    const k = sharpness(), [x, y, scale] = view();
    const size = [Math.max(1, Math.round(width * k)), Math.max(1, Math.round(height * k))];
    worker.postMessage({
      scene: isNew ? wanted : null, anew, look: look(), view: [...size, x, y, scale * k],
      touch, svg: Boolean(wantSvg), fingerprint: Boolean(wantPrint),
    });
    const goesOn = state.field === 'waves' || (state.playing && velmarAddress.moves(state));
    if (isNew) settleAt = anew || goesOn ? 0 : now + 250;
    scene = wanted;
    sentFrame = state.frame;
    anew = dirty = false;
    waiting = true;
    watch = setTimeout(() => restart('The computation took too long and was ended. Choose a larger ' +
      'finest spacing or a lower limit.'), longestWait);
  }

  // ---------------------------------------------------------------------------------------------
  // Mouse, fingers, keys
  // ---------------------------------------------------------------------------------------------

  const fingers = new Map();
  let stroke = null, moved = 0;

  const inside = ([x, y]) => x >= 0 && y >= 0 && x <= domain.width && y <= domain.height;
  const aim = (point) => {
    touch = point;
    dirty = true;
    if (state.field === 'pointer') {
      const digits = (value) => Number(value.toFixed(4));
      [state.x, state.y] = point.map(digits);
      changed();
    }
  };
  const spark = (point) => {
    if (state.field !== 'waves' || !inside(point) || state.sparks.length >= 100) return;
    state.sparks.push([state.frame, Number(point[0].toFixed(3)), Number(point[1].toFixed(3))]);
    if (!state.playing) state.frame += 1;
    changed();
  };
  const nbPoints = () => state.strokes.reduce((sum, one) => sum + one.length, 0);
  const draw = (point) => {
    const kept = [Math.max(0, Math.min(domain.width, point[0])),
      Math.max(0, Math.min(domain.height, point[1]))].map((v) => Math.round(1024 * v) / 1024);
    const last = stroke[stroke.length - 1];
    const least = Math.max(0.004, 5 / view()[2]);
    if (last && Math.hypot(kept[0] - last[0], kept[1] - last[1]) < least) return;
    if (nbPoints() >= 2000) return;
    stroke.push(kept);
    changed();
  };

  canvas.parentElement.addEventListener('pointerdown', (event) => {
    canvas.focus({ preventScroll: true });
    canvas.parentElement.setPointerCapture(event.pointerId);
    fingers.set(event.pointerId, event);
    moved = 0;
    const draws = state.field === 'curve' && event.button === 0 && !event.shiftKey;
    if (fingers.size === 1 && draws) {
      stroke = [];
      state.strokes.push(stroke);
      draw(place(event));
    } else if (fingers.size === 2 && stroke) {  // it was meant to be a pinch
      state.strokes.pop();
      stroke = null;
      changed();
    }
    if (fingers.size === 1) aim(place(event));
  });
  canvas.parentElement.addEventListener('pointermove', (event) => {
    const before = fingers.get(event.pointerId);
    if (!before) {
      if (event.pointerType === 'mouse') aim(place(event));
      return;
    }
    const right = event.clientX - before.clientX, down = event.clientY - before.clientY;
    moved += Math.hypot(right, down);
    if (fingers.size === 2) {
      const [other] = [...fingers.values()].filter((finger) => finger.pointerId !== event.pointerId);
      const distance = (finger) => Math.hypot(finger.clientX - other.clientX,
        finger.clientY - other.clientY);
      pan(right / 2, down / 2);
      const middle = { clientX: (event.clientX + other.clientX) / 2,
        clientY: (event.clientY + other.clientY) / 2 };
      zoom(distance(event) / Math.max(1, distance(before)), place(middle));
    } else if (stroke) {
      for (const part of event.getCoalescedEvents ? event.getCoalescedEvents() : [event]) {
        draw(place(part));
      }
    } else if (state.field === 'pointer' && event.pointerType !== 'mouse') {
      aim(place(event));
    } else {
      pan(right, down);
    }
    fingers.set(event.pointerId, event);
  });
  const lift = (event) => {
    if (!fingers.delete(event.pointerId)) return;
    if (event.type === 'pointerup' && moved < 6) spark(place(event));
    if (stroke && fingers.size === 0) {
      stroke = null;
      changed();
    }
  };
  canvas.parentElement.addEventListener('pointerup', lift);
  canvas.parentElement.addEventListener('pointercancel', lift);
  canvas.parentElement.addEventListener('pointerleave', (event) => {
    if (fingers.size === 0 && event.pointerType === 'mouse') {
      touch = null;
      dirty = true;
    }
  });
  canvas.parentElement.addEventListener('wheel', (event) => {
    event.preventDefault();
    const lines = event.deltaMode === 1 ? 30 : 1;
    zoom(Math.exp(-Math.max(-300, Math.min(300, event.deltaY * lines)) * 0.0022), place(event));
  }, { passive: false });
  canvas.parentElement.addEventListener('dblclick', (event) => {
    if (state.field !== 'curve' && state.field !== 'waves') zoom(2, place(event));
  });

  canvas.addEventListener('keydown', (event) => {
    const arrows = { ArrowLeft: [-1, 0], ArrowRight: [1, 0], ArrowUp: [0, 1], ArrowDown: [0, -1] };
    const arrow = arrows[event.key];
    const middle = touch || (state.field === 'pointer' ? [state.x, state.y] : view().slice(0, 2));
    if (arrow && event.shiftKey) {
      pan(-40 * arrow[0], 40 * arrow[1]);
    } else if (arrow) {
      const step = 12 / view()[2];
      const within = (value, size) => Math.max(0, Math.min(size, value));
      aim([within(middle[0] + step * arrow[0], domain.width),
        within(middle[1] + step * arrow[1], domain.height)]);
    } else if (event.key === '+' || event.key === '=') {
      zoom(1.25);
    } else if (event.key === '-') {
      zoom(0.8);
    } else if (event.key === '0') {
      fit();
    } else if (event.key === 'Enter') {
      spark(middle);
    } else if (event.key === 'Escape') {
      touch = null;
      dirty = true;
    } else if (event.key === ' ') {
      state.playing = !state.playing;
      changed();
    } else {
      return;
    }
    event.preventDefault();
  });

  new ResizeObserver(() => { dirty = true; stretch(); }).observe(canvas.parentElement);
  matchMedia('(prefers-color-scheme: dark)').addEventListener('change', () => { dirty = true; });
  start();
  requestAnimationFrame(tick);

  return {
    fit, zoom, view, fitting, isDark,
    redraw: () => { dirty = true; },
    // From the grid, as whoever opens the address gets it.
    remake: () => { scene = null; anew = true; },
    settle: () => { if (state.field !== 'waves') settleAt = performance.now() + 1; },
    svg: (done) => { wantSvg = done; },
    fingerprint: (done) => { wantPrint = done; },
    // Milliseconds from the opening of the page.
    firstPicture: () => firstPicture,
    // Everything that was asked for is there.
    atRest: () => ready && !waiting && !dirty && !settleAt && !wantSvg && !wantPrint &&
      velmarAddress.scene(state) === scene,
  };
}
