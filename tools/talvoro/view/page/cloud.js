// A WebGL view of a point cloud: drag to turn it, scroll to come closer. Points come in the
// camera's coordinates (x right, y down, z forward, metres); the view starts from the camera.
'use strict';

const CLOUD_VERTEX_SHADER = `
attribute vec3 position;
attribute vec3 colour;
uniform mat4 transform;
uniform float coloured;
uniform vec2 depthRange;
varying vec3 tint;
void main() {
  gl_Position = transform * vec4(position, 1.0);
  gl_PointSize = 2.0;
  // Without colours, near is warm and far is cold.
  float t = clamp((position.z - depthRange.x) / (depthRange.y - depthRange.x), 0.0, 1.0);
  vec3 ramp = vec3(1.0 - t, 1.0 - abs(2.0 * t - 1.0), t);
  tint = coloured > 0.5 ? colour : ramp;
}`;

const CLOUD_FRAGMENT_SHADER = `
precision mediump float;
varying vec3 tint;
void main() { gl_FragColor = vec4(tint, 1.0); }`;

// 4x4 matrices, column-major as WebGL wants them.
const mat4 = {
  multiply(a, b) {
    const out = new Float32Array(16);
    for (let c = 0; c < 4; ++c)
      for (let r = 0; r < 4; ++r) {
        let sum = 0;
        for (let k = 0; k < 4; ++k) sum += a[k * 4 + r] * b[c * 4 + k];
        out[c * 4 + r] = sum;
      }
    return out;
  },
  perspective(fovY, aspect, near, far) {
    const f = 1 / Math.tan(fovY / 2);
    const out = new Float32Array(16);
    out[0] = f / aspect;
    out[5] = f;
    out[10] = (far + near) / (near - far);
    out[11] = -1;
    out[14] = (2 * far * near) / (near - far);
    return out;
  },
  translation(x, y, z) {
    return new Float32Array([1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, x, y, z, 1]);
  },
  scaling(x, y, z) {
    return new Float32Array([x, 0, 0, 0, 0, y, 0, 0, 0, 0, z, 0, 0, 0, 0, 1]);
  },
  rotationX(a) {
    const c = Math.cos(a), s = Math.sin(a);
    return new Float32Array([1, 0, 0, 0, 0, c, s, 0, 0, -s, c, 0, 0, 0, 0, 1]);
  },
  rotationY(a) {
    const c = Math.cos(a), s = Math.sin(a);
    return new Float32Array([c, 0, -s, 0, 0, 1, 0, 0, s, 0, c, 0, 0, 0, 0, 1]);
  },
};

class CloudView {
  constructor(canvas) {
    this.canvas = canvas;
    const gl = canvas.getContext('webgl', {preserveDrawingBuffer: true});
    if (!gl) throw new Error('this browser has no WebGL: the 3D view needs it');
    this.gl = gl;
    this.program = this.link(CLOUD_VERTEX_SHADER, CLOUD_FRAGMENT_SHADER);
    this.positions = gl.createBuffer();
    this.colours = gl.createBuffer();
    this.count = 0;
    this.yaw = 0;
    this.pitch = 0;
    this.distance = 3;
    this.centre = [0, 0, 2];
    this.depthRange = [0, 4];
    this.coloured = false;

    let drag = null;
    canvas.addEventListener('mousedown', (e) => {
      drag = {x: e.clientX, y: e.clientY};
      e.preventDefault();
    });
    window.addEventListener('mouseup', () => (drag = null));
    window.addEventListener('mousemove', (e) => {
      if (!drag) return;
      this.yaw += (e.clientX - drag.x) * 0.01;
      this.pitch = Math.max(-1.5, Math.min(1.5, this.pitch + (e.clientY - drag.y) * 0.01));
      drag = {x: e.clientX, y: e.clientY};
      this.draw();
    });
    canvas.addEventListener('wheel', (e) => {
      e.preventDefault();
      this.distance = Math.max(0.2, Math.min(50, this.distance * Math.exp(e.deltaY * 0.001)));
      this.draw();
    }, {passive: false});
  }

  link(vertexSource, fragmentSource) {
    const gl = this.gl;
    const shader = (type, source) => {
      const s = gl.createShader(type);
      gl.shaderSource(s, source);
      gl.compileShader(s);
      if (!gl.getShaderParameter(s, gl.COMPILE_STATUS)) throw new Error(gl.getShaderInfoLog(s));
      return s;
    };
    const program = gl.createProgram();
    gl.attachShader(program, shader(gl.VERTEX_SHADER, vertexSource));
    gl.attachShader(program, shader(gl.FRAGMENT_SHADER, fragmentSource));
    gl.linkProgram(program);
    if (!gl.getProgramParameter(program, gl.LINK_STATUS)) throw new Error(gl.getProgramInfoLog(program));
    return program;
  }

  // xyz: 3 floats a point; rgb: 3 bytes a point, or null.
  setPoints(xyz, rgb) {
    const gl = this.gl;
    this.count = xyz.length / 3;
    gl.bindBuffer(gl.ARRAY_BUFFER, this.positions);
    gl.bufferData(gl.ARRAY_BUFFER, xyz, gl.STATIC_DRAW);
    this.coloured = !!rgb;
    gl.bindBuffer(gl.ARRAY_BUFFER, this.colours);
    gl.bufferData(gl.ARRAY_BUFFER, rgb || new Uint8Array(this.count * 3), gl.STATIC_DRAW);
    // Turn about the middle of the cloud, starting where the camera stands.
    if (this.count > 0) {
      const sum = [0, 0, 0];
      let near = Infinity, far = 0;
      for (let i = 0; i < xyz.length; i += 3) {
        sum[0] += xyz[i];
        sum[1] += xyz[i + 1];
        sum[2] += xyz[i + 2];
        near = Math.min(near, xyz[i + 2]);
        far = Math.max(far, xyz[i + 2]);
      }
      this.centre = sum.map((s) => s / this.count);
      this.distance = this.centre[2];
      this.depthRange = [near, Math.max(far, near + 0.001)];
    }
    this.draw();
  }

  draw() {
    const gl = this.gl;
    const canvas = this.canvas;
    gl.viewport(0, 0, canvas.width, canvas.height);
    gl.clearColor(0, 0, 0, 1);
    gl.clear(gl.COLOR_BUFFER_BIT | gl.DEPTH_BUFFER_BIT);
    if (!this.count) return;
    gl.enable(gl.DEPTH_TEST);
    gl.useProgram(this.program);
    // Camera coordinates (y down, z forward) to WebGL's (y up, z towards the eye).
    const [cx, cy, cz] = this.centre;
    let m = mat4.translation(-cx, -cy, -cz);
    m = mat4.multiply(mat4.scaling(1, -1, -1), m);
    m = mat4.multiply(mat4.rotationY(this.yaw), m);
    m = mat4.multiply(mat4.rotationX(this.pitch), m);
    m = mat4.multiply(mat4.translation(0, 0, -this.distance), m);
    m = mat4.multiply(mat4.perspective(1.0, canvas.width / canvas.height, 0.05, 100), m);
    gl.uniformMatrix4fv(gl.getUniformLocation(this.program, 'transform'), false, m);
    gl.uniform1f(gl.getUniformLocation(this.program, 'coloured'), this.coloured ? 1 : 0);
    gl.uniform2f(gl.getUniformLocation(this.program, 'depthRange'), ...this.depthRange);

    const position = gl.getAttribLocation(this.program, 'position');
    gl.bindBuffer(gl.ARRAY_BUFFER, this.positions);
    gl.enableVertexAttribArray(position);
    gl.vertexAttribPointer(position, 3, gl.FLOAT, false, 0, 0);
    const colour = gl.getAttribLocation(this.program, 'colour');
    gl.bindBuffer(gl.ARRAY_BUFFER, this.colours);
    gl.enableVertexAttribArray(colour);
    gl.vertexAttribPointer(colour, 3, gl.UNSIGNED_BYTE, true, 0, 0);
    gl.drawArrays(gl.POINTS, 0, this.count);
  }
}
