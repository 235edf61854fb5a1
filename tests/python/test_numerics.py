"""Parts for solvers: orders of accuracy against known solutions, and laws that hold to rounding."""
import math

import numpy as np
import pytest

from velmar_2d import Mesh, numerics


def adapted_mesh(intervals, kinds=None):
    mesh = Mesh(nx=intervals + 1, subdiv_max=4, bc_type=kinds)
    coarse = 1.0 / intervals
    mesh.resolve(lambda x, y, *_: np.where(np.abs(np.hypot(x - 0.3, y - 0.4) - 0.35) < 0.1,
                                           0.25 * coarse, coarse))
    return mesh


def order(errors):
    return math.log2(errors[0] / errors[1])


def test_steady_state_has_second_order_with_coefficients_of_all_kinds():
    for kind in ("number", "nodes", "faces"):
        errors = []
        for n in (8, 16):
            mesh = adapted_mesh(n, {"north": 1, "east": 0, "south": 1, "west": 0})
            nodes = mesh.nodes
            exact = np.sin(2.0 * nodes.x + 0.5)
            inner = int(nodes.faces.inner.sum())
            flux = {"number": numerics.flux_matrix(nodes, 3.0),
                    "nodes": numerics.flux_matrix(nodes, np.full(len(nodes), 3.0)),
                    "faces": numerics.flux_matrix(nodes, np.full(inner, 3.0), of_faces=True)}[kind]
            cells = numerics.Balance(flux, nodes.areas, nodes.known)
            u = cells.steady_state(12.0 * nodes.areas * exact, np.where(nodes.known, exact, 0.0))
            errors.append(np.abs(u - exact).max())
        assert order(errors) > 1.7, kind
    with pytest.raises(ValueError, match="coefficient has shape"):
        numerics.flux_matrix(nodes, np.ones(3))


def test_steps_have_their_orders():
    """u = (1 + x (1 - x)) (2 + sin t), whose fluxes a uniform grid knows without error."""
    nodes = Mesh(nx=5, bc_type={"north": 1, "east": 0, "south": 1, "west": 0}).nodes
    profile = 1.0 + nodes.x * (1.0 - nodes.x)
    exact = lambda t: profile * (2.0 + math.sin(t))
    source = lambda t: profile * math.cos(t) + 2.0 * (2.0 + math.sin(t))
    reaction = lambda t, u: source(t) + exact(t) ** 2 - u * u
    with_slope = lambda t, u: (reaction(t, u), -2.0 * u)
    made = []
    def solver(matrix):
        from scipy.sparse.linalg import factorized
        made.append(matrix)
        return factorized(matrix)
    flux = numerics.flux_matrix(nodes)
    cells = numerics.Balance(flux, nodes.areas, nodes.known, solver)
    rate = lambda t, u: np.where(nodes.known, profile * math.cos(t), cells.rate(u) + reaction(t, u))

    def errors(steps, advance):
        found = []
        for n in (steps, 2 * steps):
            u = exact(0.0)
            for k in range(n):
                u = advance(k / n, u, 1.0 / n)
            found.append(np.abs(u - exact(1.0)).max())
        return found

    for scheme, expected in (("backward_euler", 1), ("crank_nicolson", 2), ("tr_bdf2", 2)):
        made.clear()
        assert order(errors(8, lambda t, u, step: cells.step(
            u, step, scheme=scheme, time=t, source=lambda at: nodes.areas * source(at),
            known_after=exact(t + step)))) == pytest.approx(expected, abs=0.15)
        assert len(made) <= 2, "one matrix for steps of one length"
    for f in (reaction, with_slope):
        assert order(errors(16, lambda t, u, step: cells.rosenbrock_step(
            u, step, f, time=t, known_after=exact(t + step)))) == pytest.approx(2.0, abs=0.2)
    for steps, expected, advance in (
            (128, 2, lambda t, u, step: numerics.heun_step(rate, t, u, step)),
            (64, 3, lambda t, u, step: numerics.runge_kutta_step(rate, t, u, step)),
            (64, 2, lambda t, u, step: numerics.stabilised_step(rate, t, u, step, 7))):
        assert order(errors(steps, advance)) == pytest.approx(expected, abs=0.2)
    assert numerics.stable_step(nodes, flux=flux) == pytest.approx(1.0 / 64.0)


@pytest.mark.parametrize("upwind", ["first_order", "bounded", "positive"])
def test_advection_conserves_and_keeps_its_bounds(upwind):
    nodes = adapted_mesh(12).nodes
    ones = np.ones(len(nodes))
    wind = numerics.fluxes(nodes, 0.8 * ones, 0.3 * ones)
    assert np.abs(numerics.divergence(nodes, wind)).max() < 1e-11
    u = np.where(np.hypot(nodes.x - 0.4, nodes.y - 0.4) < 0.2, 1.0, 0.0)
    step = numerics.stable_step(nodes, wind=wind, upwind=upwind)
    for _ in range(30):
        rate = lambda t, v: -numerics.divergence(
            nodes, numerics.advection_fluxes(nodes, wind, v, 0.0, upwind))
        before, u = u, numerics.heun_step(rate, 0.0, u, step)
        assert u.min() >= -1e-15 and (u.max() <= 1.0 + 1e-12 or upwind == "positive")
    assert nodes.areas @ (nodes.x * u) > nodes.areas @ (nodes.x * before)
    through = numerics.advection_fluxes(nodes, wind, u, 0.5, upwind)
    sides = ~nodes.faces.inner
    assert through[sides].min() < 0.0
    assert nodes.areas @ numerics.divergence(nodes, through) == pytest.approx(through[sides].sum())
    slope_x, slope_y = numerics.gradient(nodes, 2.0 * nodes.x - 3.0 * nodes.y)
    assert np.abs(slope_x - 2.0).max() < 1e-12 and np.abs(slope_y + 3.0).max() < 1e-12
    derivative = numerics.face_derivative(nodes, 2.0 * nodes.x - 3.0 * nodes.y)
    inner = nodes.faces.inner
    exact = numerics.fluxes(nodes, 2.0 * ones, -3.0 * ones) / nodes.faces.length
    np.testing.assert_allclose(derivative[inner], exact[inner], atol=1e-12)
