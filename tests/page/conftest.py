import os
import subprocess

import browser
import pytest


@pytest.fixture(scope="session")
def driver():
    driver = browser.start()
    yield driver
    driver.quit()


@pytest.fixture
def page(driver):
    """Each test begins at one size, and ends with a console that has nothing to complain of."""
    browser.size(driver, 1000, 700)
    browser.scheme(driver, dark=False)
    driver.get_log("browser")
    page = browser.Page(driver, os.environ["VELMAR_2D_PAGE"])
    yield page
    assert page.faults() == []


@pytest.fixture(scope="session")
def native():
    """What the library makes of addresses, built for this machine."""
    def make(*addresses):
        run = subprocess.run([os.environ["VELMAR_2D_PAGE_NATIVE"]], input="\n".join(addresses) + "\n",
                             text=True, capture_output=True, check=True, timeout=60)
        lines = run.stdout.splitlines()
        assert len(lines) == len(addresses)
        return lines
    return make
