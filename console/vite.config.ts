import { defineConfig } from 'vite';

// The console is served by tovrel-server's admin listener under /console/.
export default defineConfig({
  base: '/console/',
  build: {
    outDir: 'dist',
    emptyOutDir: true,
    target: 'es2020',
    // No inline polyfill script: the page runs under default-src 'self'.
    modulePreload: { polyfill: false },
    assetsInlineLimit: 0,
    sourcemap: false,
  },
});
