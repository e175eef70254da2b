// The console in headless Chromium: list the drives, open one, select a
// file, copy it to another drive and watch the progress reach 100%.
//
//   node console_test.mjs URL SOURCE_DRIVE FILE DEST_DRIVE
//
// Exits 0 on success; prints what it saw either way.
import { mkdtempSync, rmSync } from "node:fs";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { chromium } from "playwright-core";

const [url, sourceDrive, fileName, destDrive] = process.argv.slice(2);
const checkInfo = process.env.CHECK_INFO === "1";
const profile = mkdtempSync(join(tmpdir(), "vtr-console-chromium-"));
const context = await chromium.launchPersistentContext(profile, {
  executablePath: process.env.CHROMIUM || "/usr/bin/chromium",
  headless: true,
  args: ["--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
         "--disable-background-networking", "--disable-component-update", "--disable-sync"],
});
const page = context.pages()[0] ?? (await context.newPage());
const seen = [];
page.on("console", (m) => seen.push(`console: ${m.text()}`));
page.on("pageerror", (e) => seen.push(`page error: ${e.message}`));
const row = (name) => `#entries tr[data-base="${name}"]`;
let status = 1;
try {
  page.setDefaultTimeout(20000);
  await page.goto(url);
  await page.waitForSelector(row(sourceDrive));
  const destPath = await page.getAttribute(row(destDrive), "data-path");
  seen.push(`drives listed; destination ${destPath}`);

  await page.click(`${row(sourceDrive)} a.open`);
  await page.waitForSelector(row(fileName));
  seen.push(`opened ${sourceDrive}`);
  if (checkInfo) {
    await page.click(`${row(fileName)} button.info`);
    await page.waitForSelector("#info dl");
    seen.push(`info: ${(await page.textContent("#info")).replace(/\s+/g, " ")}`);
  }

  await page.check(`${row(fileName)} input.sel`);
  await page.waitForFunction((f) => document.querySelector("#selection").textContent.includes(f), fileName);
  seen.push("selected");

  await page.fill("#dest", destPath);
  await page.click("#copy");
  await page.waitForFunction(() =>
    document.querySelector("#whole-pct").textContent === "100%" &&
    document.querySelector("#progress-state").textContent.includes("finished"), null, { timeout: 60000 });
  const state = await page.textContent("#progress-state");
  seen.push(`progress: whole ${await page.textContent("#whole-pct")}, entry ${await page.textContent("#item-pct")}, ${state}`);
  if (state.trim() !== "finished") throw new Error(`batch ended badly: ${state}`);
  status = 0;
} catch (e) {
  seen.push(`FAILED: ${e.message}`);
  try { seen.push(`request log: ${(await page.textContent("#log")).slice(0, 4000)}`); } catch {}
} finally {
  await context.close();
  rmSync(profile, { recursive: true, force: true });
}
console.log(seen.join("\n"));
process.exit(status);
