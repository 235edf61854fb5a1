// All that one sees is in the address, after its "#": what the mesh is made from, which the module
// reads itself (scene.hpp lists the keys), and how it is looked at.
'use strict';

const velmarAddress = (() => {
  const digits = 'ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_';
  const fields = ['pointer', 'ring', 'front', 'curve', 'expression', 'picture', 'waves'];

  const defaults = () => ({
    field: 'ring', method: 'resolve', finest: 0.004, slope: 0.25, limit: 12, most_nodes: 200000,
    squares: [24, 16], frame: 0, x: 0.5, y: 0.5,
    expression: '0.005 + 0.2*abs(y - 0.5 - 0.3*sin(5*x))', strokes: [], picture: '', sparks: [],
    show: 'links', colour: 'level', theme: 'auto', view: null,
  });

  // Two characters for each coordinate, in parts of 1024; strokes are apart by points.
  const pack = (strokes) => strokes.map((stroke) => stroke.map((point) => point.map((value) => {
    const whole = Math.max(0, Math.min(4095, Math.round(1024 * value)));
    return digits[whole >> 6] + digits[whole & 63];
  }).join('')).join('')).join('.');
  const unpack = (text) => text.split('.').map((stroke) => {
    const points = [];
    for (let i = 0; i + 4 <= stroke.length; i += 4) {
      const value = (k) => (64 * digits.indexOf(stroke[k]) + digits.indexOf(stroke[k + 1])) / 1024;
      points.push([value(i), value(i + 2)]);
    }
    return points;
  });

  const moves = (state) => ['ring', 'front', 'waves'].includes(state.field);

  // What the mesh is made from.
  function scene(state) {
    const pairs = [['field', state.field], ['method', state.method], ['finest', state.finest],
      ['slope', state.slope], ['limit', state.limit], ['squares', state.squares.join('x')]];
    if (state.most_nodes !== 200000) pairs.push(['most_nodes', state.most_nodes]);
    if (moves(state)) pairs.push(['frame', state.frame]);
    if (state.field === 'pointer') pairs.push(['x', state.x], ['y', state.y]);
    if (state.field === 'expression') {
      pairs.push(['expression', encodeURIComponent(state.expression)]);
    }
    if (state.field === 'curve' && state.strokes.length) pairs.push(['curve', pack(state.strokes)]);
    if (state.field === 'picture' && state.picture) pairs.push(['picture', state.picture]);
    if (state.field === 'waves' && state.sparks.length) {
      pairs.push(['sparks', state.sparks.map((spark) => spark.join(':')).join(',')]);
    }
    return pairs.map((pair) => pair.join('=')).join('&');
  }

  function write(state) {
    const pairs = [];
    for (const key of ['show', 'colour', 'theme']) {
      if (state[key] !== defaults()[key]) pairs.push(key + '=' + state[key]);
    }
    if (state.view) pairs.push('view=' + state.view.join(','));
    return [scene(state), ...pairs].join('&');
  }

  // What cannot be read keeps its default, and a line says so; the module looks closer.
  function read(text) {
    const state = defaults();
    let wrong = '';
    const choose = (key, among) => (value) => {
      if (among.includes(value)) state[key] = value;
      else wrong = `${key}: "${value}" is none of ${among.join(', ')}`;
    };
    const number = (key) => (value) => {
      if (value !== '' && Number.isFinite(Number(value))) state[key] = Number(value);
      else wrong = `${key}: "${value}" is not a number`;
    };
    const readers = {
      field: choose('field', fields),
      method: choose('method', ['resolve', 'update']),
      show: choose('show', ['links', 'cells', 'both']),
      colour: choose('colour', ['level', 'value']),
      theme: choose('theme', ['auto', 'light', 'dark']),
      squares: (value) => {
        if (/^\d+x\d+$/.test(value)) state.squares = value.split('x').map(Number);
        else wrong = `squares: "${value}" is not like 24x16`;
      },
      expression: (value) => {
        try { state.expression = decodeURIComponent(value); } catch { state.expression = value; }
      },
      curve: (value) => { state.strokes = unpack(value); },
      picture: (value) => { state.picture = value; },
      sparks: (value) => {
        state.sparks = value.split(',').map((spark) => spark.split(':').map(Number));
      },
      view: (value) => {
        const view = value.split(',').map(Number);
        if (view.length === 3 && view.every(Number.isFinite) && view[2] > 0) state.view = view;
      },
    };
    for (const key of ['finest', 'slope', 'limit', 'most_nodes', 'frame', 'x', 'y']) {
      readers[key] = number(key);
    }
    const named = new Set();
    for (const pair of text.replace(/^#/, '').split('&')) {
      const equals = pair.indexOf('=');
      const key = pair.slice(0, equals);
      if (equals < 0 || !Object.hasOwn(readers, key)) continue;
      readers[key](pair.slice(equals + 1));
      named.add(key);
    }
    return { state, named, wrong };
  }

  // A picture as grey pixels, one character each, with the shape that the mesh takes from it.
  async function readPicture(file) {
    const picture = await createImageBitmap(file);
    const most = 16000;
    const scale = Math.min(1, Math.sqrt(most / (picture.width * picture.height)));
    const width = Math.max(2, Math.floor(picture.width * scale));
    const height = Math.max(2, Math.floor(picture.height * scale));
    const canvas = document.createElement('canvas');
    canvas.width = width;
    canvas.height = height;
    const pen = canvas.getContext('2d');
    pen.fillStyle = 'white';
    pen.fillRect(0, 0, width, height);
    pen.imageSmoothingQuality = 'high';
    pen.drawImage(picture, 0, 0, width, height);
    const { data } = pen.getImageData(0, 0, width, height);
    let pixels = '';
    for (let i = 0; i < data.length; i += 4) {
      const grey = 0.2126 * data[i] + 0.7152 * data[i + 1] + 0.0722 * data[i + 2];
      pixels += digits[Math.min(63, Math.floor(grey / 4))];
    }
    const along = (part, other) => Math.max(2, Math.min(64, Math.round(16 * part / other)));
    return {
      picture: width + 'x' + height + '.' + pixels,
      squares: width > height ? [along(width, height), 16] : [16, along(height, width)],
    };
  }

  return { defaults, scene, write, read, moves, readPicture };
})();
