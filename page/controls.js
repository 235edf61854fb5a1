// Buttons, sliders and numbers around the canvas.
'use strict';

(() => {
  const $ = (id) => document.getElementById(id);
  const { state, named, wrong } = velmarAddress.read(location.hash);
  const hints = {
    pointer: 'Move the mouse over the mesh, or a finger.',
    ring: 'The ring wanders and breathes; the mesh goes with it.',
    front: 'A front sweeps to and fro.',
    curve: 'Draw on the mesh. With Shift, dragging moves the view.',
    expression: 'As for the program: + − * / ^, comparisons, ? :, sin, sqrt, abs, hypot, min, max ...',
    picture: 'Drop a picture on the mesh. It stays in this browser, and in the link.',
    waves: 'An excitable medium, solved on the mesh by finite volumes. Tap to set off a wave.',
  };
  const short = (value) => String(Number(value.toPrecision(3)));
  const grouped = (value) => value.toLocaleString('en').replaceAll(',', '\u202f');

  // Without an address: as wide as the screen is, and in motion unless that is not wanted.
  if (!named.has('squares')) {
    const { width, height } = $('frame').getBoundingClientRect();
    const along = (part, other) => Math.max(16, Math.min(28, Math.round(16 * part / other)));
    state.squares = width > height ? [along(width, height), 16] : [16, along(height, width)];
  }
  state.playing = !named.has('frame') && !matchMedia('(prefers-reduced-motion: reduce)').matches;

  // ---------------------------------------------------------------------------------------------
  // What is told
  // ---------------------------------------------------------------------------------------------

  let lastPicture = 0, rate = 0, averaged = 0, addressTimer = 0;
  let ownMessage = wrong;

  function say(line) {
    if ($('message').textContent !== line) $('message').textContent = line;
    $('message').hidden = line === '';
  }

  function tellNode(node) {
    $('no-node').hidden = Boolean(node);
    $('node-told').hidden = !node;
    if (!node) return;
    $('node-place').textContent = `${short(node.x)}, ${short(node.y)}`;
    $('node-level').textContent = node.level;
    $('node-spacing').textContent = short(node.spacing);
    $('node-wanted').textContent = node.wanted === null ? 'any' : short(node.wanted);
    $('node-cell').textContent = `${node.corners} corners`;
    $('node-area').textContent = node.area.toExponential(3);
    const names = ['N', 'NE', 'E', 'SE', 'S', 'SW', 'W', 'NW'];
    const nodes = names.filter((name, d) => typeof node.links[d] === 'number');
    $('node-links').textContent = nodes.join(' ');
    const longest = Math.max(...node.links.filter((length) => typeof length === 'number'));
    let rose = '';
    node.links.forEach((link, d) => {
      if (link === null) return;
      const right = Math.sin(d * Math.PI / 4), up = Math.cos(d * Math.PI / 4);
      const reach = link === 'side' ? 20 : 34 * link / longest;
      rose += `<line x2="${right * reach}" y2="${-up * reach}"${link === 'side' ? ' class="side"' : ''}/>` +
        `<text x="${right * 44}" y="${-up * 44}">${names[d]}</text>`;
    });
    $('rose').innerHTML = rose + '<circle r="4"/>';
    $('rose').setAttribute('aria-label', 'Links to nodes: ' + nodes.join(', '));
  }

  function told(answer) {
    if (window.velmarPage.watch) window.velmarPage.watch(answer);
    if (answer.view) {
      const now = performance.now();
      if (lastPicture && now - lastPicture < 1000) {
        rate += 0.08 * (1000 / (now - lastPicture) - rate);
        $('rate').textContent = Math.round(rate);
      }
      lastPicture = now;
    }
    if ('node' in answer || answer.view) tellNode(answer.node);
    const { report } = answer;
    if (!report) return;
    say(report.message || ownMessage);
    $('expression').setAttribute('aria-invalid', String(report.message.startsWith('expression')));
    if (report.nodes === undefined) return;
    averaged += (answer.view && report.milliseconds ? 0.3 : 1) * (report.milliseconds - averaged);
    $('nodes').textContent = grouped(report.nodes);
    $('levels').textContent = `0–${report.level}`;
    $('inserted').textContent = grouped(report.inserted);
    $('removed').textContent = grouped(report.removed);
    $('coarse').textContent = grouped(report.coarse);
    $('at-limit').textContent = grouped(report.at_limit);
    $('coarse-box').classList.toggle('some', report.coarse > 0);
    $('milliseconds').textContent = report.milliseconds.toFixed(1);
    const summary = `Adaptive mesh of ${report.nodes} nodes, levels 0 to ${report.level}, ` +
      `${report.coarse} of them coarser than wanted`;
    if (!state.playing) $('mesh').setAttribute('aria-label', summary);
    clearTimeout(told.timer);
    told.timer = setTimeout(() => { $('status').textContent = summary; }, 1000);
  }

  // ---------------------------------------------------------------------------------------------
  // State to controls, controls to state
  // ---------------------------------------------------------------------------------------------

  function writeAddress() {
    const address = '#' + velmarAddress.write(state);
    if (location.hash !== address) history.replaceState(null, '', address);
  }

  function changed() {
    clearTimeout(addressTimer);
    if (!(state.playing && velmarAddress.moves(state))) addressTimer = setTimeout(writeAddress, 300);
    reflect();
  }

  function reflect() {
    for (const name of ['field', 'method', 'show', 'colour']) {
      for (const input of document.getElementsByName(name)) {
        input.checked = input.value === state[name];
      }
    }
    $('hint').textContent = hints[state.field];
    for (const field of ['expression', 'curve', 'picture', 'waves']) {
      $(field + '-box').hidden = state.field !== field;
    }
    const measures = state.field !== 'expression';
    $('finest').disabled = !measures;
    $('slope').disabled = !measures || state.field === 'picture' || state.field === 'waves';
    if (document.activeElement !== $('expression')) $('expression').value = state.expression;
    $('finest').value = Math.log2(state.finest);
    $('finest-told').textContent = short(state.finest);
    $('finest').setAttribute('aria-valuetext', short(state.finest));
    $('slope').value = Math.log2(state.slope);
    $('slope-told').textContent = short(state.slope);
    $('slope').setAttribute('aria-valuetext', short(state.slope));
    $('limit').value = state.limit;
    $('limit-told').textContent = state.limit;
    $('most-nodes').value = state.most_nodes;
    const moves = velmarAddress.moves(state);
    $('play').hidden = !moves;
    $('play').textContent = state.playing ? 'Pause' : 'Play';
    $('play').setAttribute('aria-pressed', String(Boolean(state.playing)));
    document.documentElement.dataset.dark = screen.isDark() ? 1 : 0;
    $('theme').setAttribute('aria-label', 'Colours: ' +
      { auto: 'as the system has them', light: 'light', dark: 'dark' }[state.theme]);
  }

  // For whoever wants to look on: `watch` is called with every answer of the worker.
  window.velmarPage = { state, watch: null };
  const screen = velmarScreen($('mesh'), state, { told, changed, failed: say });

  // What was computed so far began from other values.
  const beginAgain = () => { state.frame = 0; state.sparks = []; screen.remake(); };

  function choose(field) {
    if (field === 'waves' && state.field !== 'waves') {
      beginAgain();
      state.limit = Math.min(state.limit, 8);
      state.finest = Math.max(state.finest, 0.0055);
      state.colour = 'value';
      state.show = 'links';
    } else if (state.field === 'waves' && field !== 'waves') {
      state.colour = 'level';
      state.limit = 12;
    }
    if (field !== state.field && ['ring', 'front', 'waves'].includes(field)) state.playing = true;
    state.field = field;
    ownMessage = '';
    changed();
  }

  $('panel').addEventListener('submit', (event) => event.preventDefault());
  $('panel').addEventListener('change', (event) => {
    const { name, value } = event.target;
    if (name === 'field') choose(value);
    if (['method', 'show', 'colour'].includes(name)) {
      state[name] = value;
      if (name === 'method' && state.field === 'waves') beginAgain();
      screen.redraw();
      changed();
    }
  });
  const slide = (id, value) => $(id).addEventListener('input', () => {
    state[id] = value(Number($(id).value));
    if (state.field === 'waves') beginAgain();
    changed();
  });
  slide('finest', (power) => Number((2 ** power).toPrecision(3)));
  slide('slope', (power) => Number((2 ** power).toPrecision(3)));
  slide('limit', (limit) => limit);
  $('most-nodes').addEventListener('change', () => {
    state.most_nodes = Number($('most-nodes').value);
    if (state.field === 'waves') beginAgain();
    screen.remake();
    changed();
  });
  $('expression').addEventListener('input', () => {
    state.expression = $('expression').value;
    changed();
  });
  $('clear').addEventListener('click', () => { state.strokes = []; changed(); });
  $('again').addEventListener('click', () => { beginAgain(); changed(); });
  $('play').addEventListener('click', () => {
    state.playing = !state.playing;
    if (!state.playing) screen.settle();
    changed();
  });
  $('closer').addEventListener('click', () => screen.zoom(1.4));
  $('farther').addEventListener('click', () => screen.zoom(1 / 1.4));
  $('fit').addEventListener('click', () => screen.fit());
  $('theme').addEventListener('click', () => {
    state.theme = { auto: 'light', light: 'dark', dark: 'auto' }[state.theme];
    screen.redraw();
    changed();
  });
  matchMedia('(prefers-color-scheme: dark)').addEventListener('change', reflect);

  // ---------------------------------------------------------------------------------------------
  // In and out
  // ---------------------------------------------------------------------------------------------

  async function takePicture(file) {
    if (!file) return;
    try {
      Object.assign(state, await velmarAddress.readPicture(file));
      state.colour = 'value';
      state.show = 'both';
      state.view = null;
      ownMessage = '';
      choose('picture');
      say('');
    } catch {
      ownMessage = `${file.name}: not a picture that this browser reads.`;
      say(ownMessage);
    }
  }
  $('picture').addEventListener('change', () => takePicture($('picture').files[0]));
  $('frame').addEventListener('dragover', (event) => event.preventDefault());
  $('frame').addEventListener('drop', (event) => {
    event.preventDefault();
    takePicture(event.dataTransfer.files[0]);
  });

  $('copy').addEventListener('click', async () => {
    writeAddress();
    let line = 'The link is copied.';
    try {
      await navigator.clipboard.writeText(location.href);
    } catch {
      line = 'The address of this page is the link.';
    }
    $('copy').textContent = line;
    setTimeout(() => { $('copy').textContent = 'Copy link'; }, 2000);
  });
  $('svg').addEventListener('click', () => screen.svg((text) => {
    const link = document.createElement('a');
    link.href = URL.createObjectURL(new Blob([text], { type: 'image/svg+xml' }));
    link.download = 'mesh.svg';
    link.click();
    setTimeout(() => URL.revokeObjectURL(link.href), 10000);
  }));

  // Another link in the same tab.
  addEventListener('hashchange', () => {
    const next = velmarAddress.read(location.hash);
    ownMessage = next.wrong;
    Object.assign(state, next.state, { playing: false });
    screen.remake();
    screen.redraw();
    reflect();
  });

  reflect();
  Object.assign(window.velmarPage, { screen, reflect });
})();
