"""Parts of which solvers on control cells are made.

    from velmar_2d import numerics

    K = numerics.flux_matrix(mesh.nodes, 1e-3)                  # what flows out of each cell is K @ u
    cells = numerics.Balance(K, mesh.nodes.areas, mesh.nodes.known)
    u = cells.step(u, 0.01)                                     # area du/dt = -K u

Arrays have one value for each node, or one for each of nodes.faces: those between two nodes, from a
to b, and pieces of the sides, outwards. What was made stays good for these nodes when the mesh changes.
"""
from __future__ import annotations

import math
from typing import Any, Callable

import numpy as np
from numpy.typing import ArrayLike, NDArray

from .nodes import Nodes

Floats = NDArray[np.float64]
Rate = Callable[[float, Floats], ArrayLike]

_UPWIND = ("first_order", "bounded", "positive")
_SCHEMES = ("backward_euler", "crank_nicolson", "tr_bdf2")


# -------------------------------------------------------------------------------------------------
# In space
# -------------------------------------------------------------------------------------------------

def flux_matrix(nodes: Nodes, coefficient: ArrayLike = 1.0, *, of_faces: bool = False) -> Any:
    """Two-point fluxes as a scipy.sparse.csr_matrix: (K @ u)[i] is what flows out of cell i.

    Symmetric, rows sum to 0, nothing flows through the sides. The coefficient is one number, one for
    each node, of which faces take the harmonic mean, or one for each of nodes.faces.inner.
    """
    from scipy import sparse
    given = np.asarray(coefficient, dtype=np.float64)
    _require_current(nodes)
    count = int(nodes.faces.inner.sum()) if of_faces else len(nodes)
    if given.shape != (count,) and (of_faces or given.shape != ()):
        raise ValueError(f"coefficient has shape {given.shape}; it must be ({count},)")
    return sparse.csr_matrix(nodes._core.flux_matrix(given, of_faces), shape=(len(nodes),) * 2)


def gradient(nodes: Nodes, u: ArrayLike) -> tuple[Floats, Floats]:
    """du/dx and du/dy at the nodes, by least squares over linked nodes: exact for linear values."""
    _require_current(nodes)
    return nodes._core.gradient_of(_of_nodes(nodes, "u", u))


def face_derivative(nodes: Nodes, u: ArrayLike) -> Floats:
    """The derivative across faces, from a to b; 0 on sides."""
    faces, values = nodes.faces, _of_nodes(nodes, "u", u)
    inner = faces.inner
    derivative = np.zeros(len(faces.a))
    derivative[inner] = (values[faces.b[inner]] - values[faces.a[inner]]) / faces.distance[inner]
    return derivative


def fluxes(nodes: Nodes, field_x: ArrayLike, field_y: ArrayLike) -> Floats:
    """What a vector field at the nodes carries through faces; sides take what the node has."""
    faces = nodes.faces
    x, y = _of_nodes(nodes, "field_x", field_x), _of_nodes(nodes, "field_y", field_y)
    a, b = faces.a, np.where(faces.inner, faces.b, faces.a)
    along_x, along_y = nodes.x[b] - nodes.x[a], nodes.y[b] - nodes.y[a]
    side = (-2 - faces.b[~faces.inner]) // 3
    along_x[~faces.inner] = np.array([0.0, 1.0, 0.0, -1.0])[side]
    along_y[~faces.inner] = np.array([1.0, 0.0, -1.0, 0.0])[side]
    distance = np.where(faces.inner, faces.distance, 1.0)
    return 0.5 * faces.length / distance * ((x[a] + x[b]) * along_x + (y[a] + y[b]) * along_y)


def divergence(nodes: Nodes, through: ArrayLike) -> Floats:
    """What leaves each cell through its faces and sides, by area."""
    faces, flux = nodes.faces, _of_faces(nodes, "through", through)
    inner, n = faces.inner, len(nodes)
    out = np.bincount(faces.a, flux, n) - np.bincount(faces.b[inner], flux[inner], n)
    return out / nodes.areas


def advection_fluxes(nodes: Nodes, wind: ArrayLike, u: ArrayLike, inflow: ArrayLike = 0.0,
                     upwind: str = "bounded") -> Floats:
    """What a wind carries through faces; wind is velocity times length, as fluxes() makes it.

    inflow  the value outside of sides where the wind comes in, one number or one for each face
    upwind  "first_order": the values of the node that the wind comes from; "bounded": by its
            gradient, so far as no new extremes can come; "positive": so far as no value can become
            negative, smooth extremes stay
    """
    if upwind not in _UPWIND:
        raise ValueError(f"upwind is {upwind!r}; it must be one of {_UPWIND}")
    _require_current(nodes)
    inner, blowing = nodes.faces.inner, _of_faces(nodes, "wind", wind)
    outside = np.broadcast_to(np.asarray(inflow, dtype=np.float64), blowing.shape)
    through = np.empty_like(blowing)
    through[inner], through[~inner] = nodes._core.advection_fluxes(
        _UPWIND.index(upwind), blowing[inner], blowing[~inner], _of_nodes(nodes, "u", u),
        outside[~inner])
    return through


def stable_step(nodes: Nodes, *, wind: ArrayLike | None = None, flux: Any = None,
                upwind: str = "bounded") -> float:
    """The longest step of Euler's and Heun's methods for an advection, a diffusion with the matrix
    `flux`, or both."""
    fastest = 0.0
    if wind is not None:
        faces, blowing = nodes.faces, _of_faces(nodes, "wind", wind)
        inner, n = faces.inner, len(nodes)
        out = np.bincount(faces.a, np.maximum(blowing, 0.0), n)
        out += np.bincount(faces.b[inner], np.maximum(-blowing[inner], 0.0), n)
        fastest += (1.0 if upwind == "first_order" else 2.0) * np.max(out / nodes.areas)
    if flux is not None:
        fastest += np.max(flux.diagonal() / nodes.areas)
    return 1.0 / fastest if fastest > 0.0 else math.inf


# -------------------------------------------------------------------------------------------------
# Explicit steps: rate(time, u) is du/dt; each returns u after the step
# -------------------------------------------------------------------------------------------------

def heun_step(rate: Rate, time: float, u: ArrayLike, step: float) -> Floats:
    """Second order, with the stability and positivity of Euler's steps."""
    u = np.asarray(u, dtype=np.float64)
    after = u + step * np.asarray(rate(time, u))
    return 0.5 * (u + after + step * np.asarray(rate(time + step, after)))


def runge_kutta_step(rate: Rate, time: float, u: ArrayLike, step: float) -> Floats:
    """Three stages, third order, with the stability and positivity of Euler's steps."""
    u = np.asarray(u, dtype=np.float64)
    after = u + step * np.asarray(rate(time, u))
    after = 0.75 * u + 0.25 * (after + step * np.asarray(rate(time + step, after)))
    return (u + 2.0 * (after + step * np.asarray(rate(time + 0.5 * step, after)))) / 3.0


def stabilised_step(rate: Rate, time: float, u: ArrayLike, step: float, stages: int) -> Floats:
    """Second order, for diffusion: steps may be (stages**2 + stages - 2) / 4 times as long as
    stable_step(). Needs 3 stages at least (a Runge-Kutta-Legendre method)."""
    if stages < 3:
        raise ValueError(f"stages is {stages}; it must be 3 at least")
    u = np.asarray(u, dtype=np.float64)

    def b(j: int) -> float:
        return 1.0 / 3.0 if j < 3 else (j * j + j - 2) / (2.0 * j * (j + 1))

    w = 4.0 / (stages * stages + stages - 2)
    first = np.asarray(rate(time, u))
    before, now = u, u + step * w / 3.0 * first
    time_before, time_now = 0.0, w / 3.0
    for j in range(2, stages + 1):
        mu, nu = (2 * j - 1) / j * b(j) / b(j - 1), -(j - 1) / j * b(j) / b(j - 2)
        of_rate = mu * w
        of_first = -(1.0 - b(j - 1)) * of_rate
        change = of_rate * np.asarray(rate(time + step * time_now, now)) + of_first * first
        before, now = now, mu * now + nu * before + (1.0 - mu - nu) * u + step * change
        time_before, time_now = time_now, mu * time_now + nu * time_before + of_rate + of_first
    return now


# -------------------------------------------------------------------------------------------------
# Implicit steps
# -------------------------------------------------------------------------------------------------

class Balance:
    """Control cells and what flows between them: areas du/dt = source - flux @ u.

    flux    from flux_matrix(), or it and what leaves through sides on its diagonal
    known   nodes whose values are given: their rows and columns are eliminated symmetrically
    solver  makes from a matrix (csc_matrix) a function that solves for a right side; it is called
            when the matrix is another, for a step of the same length it is not. Without:
            scipy.sparse.linalg.factorized
    """

    def __init__(self, flux: Any, areas: ArrayLike, known: ArrayLike | None = None,
                 solver: Callable[[Any], Callable[[Floats], Floats]] | None = None) -> None:
        self.flux = flux
        self.areas = np.asarray(areas, dtype=np.float64)
        n = len(self.areas)
        self.known = np.zeros(n, bool) if known is None else np.asarray(known, dtype=bool)
        if flux.shape != (n, n) or self.known.shape != (n,):
            raise ValueError(f"flux of shape {flux.shape}, {n} areas and known of shape "
                             f"{self.known.shape} do not fit one another")
        if solver is None:
            from scipy.sparse.linalg import factorized as solver
        self._solver = solver
        self._solve: Callable[[Floats], Floats] | None = None
        self._made: Floats | None = None

    def rate(self, u: ArrayLike) -> Floats:
        """du/dt without sources; 0 at known nodes. For explicit steps."""
        return np.where(self.known, 0.0, -(self.flux @ np.asarray(u)) / self.areas)

    def step(self, u: ArrayLike, step: float, *, scheme: str = "tr_bdf2", time: float = 0.0,
             source: Callable[[float], ArrayLike] | None = None,
             known_after: ArrayLike | None = None) -> Floats:
        """u after one implicit step.

        scheme       "backward_euler": first order, damps whatever is faster than a step;
                     "crank_nicolson": second order, does not damp it; "tr_bdf2": second order,
                     damps it, solves twice
        source       source(time): what comes into each cell, times area, through sides too
        known_after  u at the end, of which that of known nodes counts; without they stay
        """
        if scheme not in _SCHEMES:
            raise ValueError(f"scheme is {scheme!r}; it must be one of {_SCHEMES}")
        before = np.asarray(u, dtype=np.float64)

        def led(values: Floats, share: float) -> Floats:
            if known_after is None:
                return np.where(self.known, before, values)
            return np.where(self.known, before + share * (np.asarray(known_after) - before), values)

        def residual(at: float, values: Floats) -> Floats:
            flow = self.flux @ values
            return -flow if source is None else np.asarray(source(at)) - flow

        if scheme == "backward_euler":
            now = led(before, 1.0)
            return now + self._change(1.0 / step, residual(time + step, now))
        part = 1.0 if scheme == "crank_nicolson" else 2.0 - math.sqrt(2.0)
        factor = 2.0 / (part * step)
        now = led(before, part)
        now = now + self._change(factor, residual(time, before) + residual(time + part * step, now))
        if scheme == "crank_nicolson":
            return now
        now = led((now - (1.0 - part) ** 2 * before) / (part * (2.0 - part)), 1.0)
        return now + self._change(factor, residual(time + step, now))

    def rosenbrock_step(self, u: ArrayLike, step: float, reaction: Callable[..., Any], *,
                        time: float = 0.0, known_after: ArrayLike | None = None) -> Floats:
        """u after one step of areas du/dt = areas f(t, u) - flux @ u: second order, solves twice.

        reaction(time, u) returns f, or f and its derivative by u. Without the derivative the matrix
        is the same for all steps of one length.
        """
        u = np.asarray(u, dtype=np.float64)
        gamma = 1.0 - math.sqrt(0.5)
        led = np.zeros_like(u)
        if known_after is not None:
            led = np.where(self.known, np.asarray(known_after) - u, 0.0)

        def rates(at: float, values: Floats) -> tuple[Floats, Any]:
            found = reaction(at, values)
            f, slope = found if isinstance(found, tuple) else (found, 0.0)
            return self.areas * f - self.flux @ values, slope

        flow, slope = rates(time, u)
        factor = 1.0 / (gamma * step) - np.asarray(slope, dtype=np.float64)
        first = led + self._change(factor, flow / gamma - self.flux @ led)
        flow, _ = rates(time + step, u + first)
        second = -led + self._change(
            factor, (flow - 2.0 / step * self.areas * first) / gamma + self.flux @ led)
        return u + 1.5 * first + 0.5 * second

    def steady_state(self, source: ArrayLike, u: ArrayLike) -> Floats:
        """u with flux @ u = source, and known nodes as they are in `u`."""
        u = np.asarray(u, dtype=np.float64)
        return u + self._change(0.0, np.asarray(source) - self.flux @ u)

    def _change(self, factor: Any, right: Floats) -> Floats:
        """(factor * areas + flux)^-1 right, where known nodes do not change."""
        from scipy import sparse
        factors = np.broadcast_to(np.asarray(factor, dtype=np.float64), self.areas.shape)
        if self._solve is None or self._made is None or not np.array_equal(self._made, factors):
            free = sparse.diags(np.where(self.known, 0.0, 1.0))
            own = factors * self.areas + np.where(self.known, self.flux.diagonal(), 0.0)
            matrix = free @ self.flux @ free + sparse.diags(own)
            self._solve, self._made = self._solver(matrix.tocsc()), np.array(factors)
        return self._solve(np.where(self.known, 0.0, right))


# -------------------------------------------------------------------------------------------------

def _require_current(nodes: Nodes) -> None:
    nodes._require_current("what solvers need")


def _of_nodes(nodes: Nodes, name: str, values: ArrayLike) -> Floats:
    return _of_shape(name, values, len(nodes), "nodes")


def _of_faces(nodes: Nodes, name: str, values: ArrayLike) -> Floats:
    return _of_shape(name, values, len(nodes.faces.a), "faces")


def _of_shape(name: str, values: ArrayLike, count: int, of: str) -> Floats:
    array = np.asarray(values, dtype=np.float64)
    if array.shape != (count,):
        raise ValueError(f"{name} has shape {array.shape}; {count} {of} need ({count},)")
    return array
