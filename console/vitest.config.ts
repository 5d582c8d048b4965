import { defineConfig } from 'vitest/config';

// The unit tests of the console's logic, in Node without a browser. They run in St. John's time (UTC
// -03:30, with summer time), so that a date read or written in local time instead of UTC shows. The zone
// is set here, before any worker starts: a worker thread cannot change it for itself.
process.env.TZ = 'America/St_Johns';

export default defineConfig({
  test: {
    include: ['test/**/*.test.ts'],
    environment: 'node',
    pool: 'threads',
  },
});
