"""Recurrent operators and transforms of signals."""

import numpy as np


def sigmoid(x):
    return 1 / (1 + np.exp(-x))


FUNCTIONS = {"sigmoid": sigmoid, "tanh": np.tanh, "relu": lambda x: np.maximum(x, 0)}


def rnn_step(n, d, f, x, h, c):
    b = d["b"]
    return f[0](x @ d["w"].T + h @ d["r"].T + b[:len(b) // 2] + b[len(b) // 2:]), c


def gru_step(n, d, f, x, h, c):
    (wz, wr, wh), (rz, rr, rh) = np.split(d["w"], 3), np.split(d["r"], 3)
    bz, br, bh, cz, cr, ch = np.split(d["b"], 6)
    z, r = f[0](x @ wz.T + h @ rz.T + bz + cz), f[0](x @ wr.T + h @ rr.T + br + cr)
    inner = r * (h @ rh.T + ch) if n.a("linear_before_reset", 0) else (r * h) @ rh.T + ch
    return (1 - z) * f[1](x @ wh.T + inner + bh) + z * h, c


def lstm_step(n, d, f, x, h, c):
    b = d["b"]
    i, o, forget, g = np.split(x @ d["w"].T + h @ d["r"].T + b[:len(b) // 2] + b[len(b) // 2:], 4, axis=1)
    pi, po, pf = np.split(d["p"], 3)
    i, forget = f[0](i + pi * c), f[0](forget + pf * c)
    c = forget * c + i * f[1](g)
    return f[0](o + po * c) * f[2](c), c


def recurrent(step, gates, usual):
    def run(n):
        x = n.x[0].swapaxes(0, 1) if n.a("layout", 0) else n.x[0]
        steps, batch, hidden = x.shape[0], x.shape[1], n.a("hidden_size")
        directions = 2 if n.a("direction", "forward") == "bidirectional" else 1
        words = [w.decode().lower() for w in n.a("activations") or []] or usual * directions
        state = [n.input_or(k, np.zeros((directions, batch, hidden))) for k in (5, 6)]
        if n.a("layout", 0):
            state = [s.swapaxes(0, 1) if n.given(5 + k) else s for k, s in enumerate(state)]
        y, ends = np.zeros((steps, directions, batch, hidden)), ([], [])
        for k in range(directions):
            backwards = k == 1 or n.a("direction", "forward") == "reverse"
            d = {"w": n.x[1][k], "r": n.x[2][k],
                 "b": n.x[3][k] if n.given(3) else np.zeros(2 * gates * hidden),
                 "p": n.x[7][k] if n.given(7) else np.zeros(3 * hidden)}
            functions = [FUNCTIONS[w] for w in words[k * len(usual):(k + 1) * len(usual)]]
            h, c = state[0][k], state[1][k]
            for t in reversed(range(steps)) if backwards else range(steps):
                h, c = step(n, d, functions, x[t], h, c)
                y[t, k] = h
            ends[0].append(h)
            ends[1].append(c)
        last, cell = (np.stack(e) for e in ends)
        if n.a("layout", 0):
            y, last, cell = y.transpose(2, 0, 1, 3), last.swapaxes(0, 1), cell.swapaxes(0, 1)
        return y, last, cell
    return run


def transform(n):
    x, axis = n.x[0], n.a("axis", 1)
    numbers = x[..., 0] + (1j * x[..., 1] if x.shape[-1] == 2 else 0)
    made = (np.fft.ifft if n.a("inverse", 0) else np.fft.fft)(numbers, axis=axis)
    if n.a("onesided", 0):
        made = np.take(made, range(x.shape[axis] // 2 + 1), axis)
    return np.stack([made.real, made.imag], -1)


def short_time(n):
    x, step = n.x[0].reshape(n.x[0].shape[0], -1), int(np.ravel(n.x[1])[0])
    length = int(np.ravel(n.x[3])[0]) if n.given(3) else len(n.x[2])
    window = n.input_or(2, np.ones(length))
    frames = np.stack([x[:, i:i + length] * window for i in range(0, x.shape[1] - length + 1, step)], 1)
    made = np.fft.fft(frames)
    if n.a("onesided", 1):
        made = made[..., :length // 2 + 1]
    return np.stack([made.real, made.imag], -1)


OPERATORS = {
    "RNN": recurrent(rnn_step, 1, ["tanh"]), "GRU": recurrent(gru_step, 3, ["sigmoid", "tanh"]),
    "LSTM": recurrent(lstm_step, 4, ["sigmoid", "tanh", "tanh"]), "DFT": transform, "STFT": short_time,
}
