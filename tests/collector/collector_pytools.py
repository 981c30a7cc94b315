"""What the collector's Python tests and benchmarks share: bencode, and headless Chromium
driven through Selenium with the dashboard's token on every request."""


def bencode(value):
    """Integers, text (UTF-8), bytes, lists, and dictionaries whose keys (text or bytes)
    come out sorted as bytes."""
    if isinstance(value, int):
        return b"i%de" % value
    if isinstance(value, str):
        value = value.encode()
    if isinstance(value, bytes):
        return b"%d:%s" % (len(value), value)
    if isinstance(value, list):
        return b"l" + b"".join(bencode(item) for item in value) + b"e"
    keys = sorted((key.encode() if isinstance(key, str) else key, key) for key in value)
    return b"d" + b"".join(bencode(raw) + bencode(value[key]) for raw, key in keys) + b"e"


def start_browser(directory, token, console=False):
    """Headless Chromium (Debian's, with its chromedriver), its profile in `directory`,
    sending `token` as the bearer on every request; `console`: keep the browser's console
    for the caller to read."""
    # Only the callers that drive a browser need Selenium (Debian's python3 has it).
    from selenium import webdriver
    from selenium.webdriver.chrome.service import Service
    options = webdriver.ChromeOptions()
    options.binary_location = "/usr/bin/chromium"
    for argument in ["--headless", "--no-sandbox", "--disable-gpu", "--disable-background-networking",
                     "--disable-component-update", "--disable-sync", "--no-first-run",
                     "--window-size=1280,900", "--user-data-dir=" + directory + "/chromium"]:
        options.add_argument(argument)
    if console:
        options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
    driver = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)
    driver.execute_cdp_cmd("Network.enable", {})
    driver.execute_cdp_cmd("Network.setExtraHTTPHeaders", {"headers": {"Authorization": "Bearer " + token}})
    return driver
