<?xml version="1.0" encoding="utf-8"?>
<!-- A module's page ("/<Module>.xml") as HTML: what the module is, where it runs, the way to
     its neighbours, and each method with its parameters, return value and a URL call to try. -->
<xsl:stylesheet version="1.0" xmlns:xsl="http://www.w3.org/1999/XSL/Transform">
  <xsl:output method="html" encoding="utf-8" indent="yes"
              doctype-system="about:legacy-compat"/>

  <xsl:template match="/page">
    <html lang="en">
      <head>
        <meta name="viewport" content="width=device-width, initial-scale=1"/>
        <title><xsl:value-of select="pagetitle"/></title>
        <!-- Pages are served from the root, beside css/ and xsl/. -->
        <link rel="stylesheet" type="text/css" href="css/velmo.css"/>
      </head>
      <body>
        <header class="banner">
          <p class="brand">Velmo</p>
          <p class="path">
            <a href="{kxlink}"><xsl:value-of select="module/parentbroker"/></a>
            <xsl:text> / </xsl:text>
            <a href="{kxhref}"><xsl:value-of select="kxname"/></a>
          </p>
          <h1><xsl:value-of select="module/name"/></h1>
          <xsl:if test="normalize-space(module/description) != ''">
            <p class="summary"><xsl:value-of select="module/description"/></p>
          </xsl:if>
          <dl class="facts">
            <dt>Version</dt>
            <dd><xsl:value-of select="module/version"/></dd>
            <dt>Broker</dt>
            <dd><a href="{kxlink}"><xsl:value-of select="module/parentbroker"/></a></dd>
            <dt>Content</dt>
            <dd><a href="{kxcontext}"><xsl:value-of select="kxcontext"/></a></dd>
          </dl>
        </header>
        <xsl:call-template name="navigation"/>
        <main>
          <xsl:apply-templates select="module/methods"/>
        </main>
        <xsl:call-template name="navigation"/>
      </body>
    </html>
  </xsl:template>

  <!-- Previous module, the broker's index, next module; a missing neighbour is greyed. -->
  <xsl:template name="navigation">
    <nav class="pager">
      <xsl:call-template name="neighbour">
        <xsl:with-param name="href" select="kxprevious"/>
        <xsl:with-param name="rel" select="'prev'"/>
        <xsl:with-param name="arrow" select="'← '"/>
      </xsl:call-template>
      <a class="index" href="{kxlink}">Index</a>
      <xsl:call-template name="neighbour">
        <xsl:with-param name="href" select="kxnext"/>
        <xsl:with-param name="rel" select="'next'"/>
        <xsl:with-param name="arrow" select="' →'"/>
      </xsl:call-template>
    </nav>
  </xsl:template>

  <xsl:template name="neighbour">
    <xsl:param name="href"/>
    <xsl:param name="rel"/>
    <xsl:param name="arrow"/>
    <xsl:choose>
      <xsl:when test="normalize-space($href) != ''">
        <!-- "<Module>.xml": the name alone reads better. -->
        <xsl:variable name="name">
          <xsl:choose>
            <xsl:when test="contains($href, '.xml')">
              <xsl:value-of select="substring-before($href, '.xml')"/>
            </xsl:when>
            <xsl:otherwise><xsl:value-of select="$href"/></xsl:otherwise>
          </xsl:choose>
        </xsl:variable>
        <a class="{$rel}" rel="{$rel}" href="{$href}">
          <xsl:if test="$rel = 'prev'"><xsl:value-of select="$arrow"/></xsl:if>
          <xsl:value-of select="$name"/>
          <xsl:if test="$rel = 'next'"><xsl:value-of select="$arrow"/></xsl:if>
        </a>
      </xsl:when>
      <xsl:otherwise>
        <span class="{$rel} none">
          <xsl:choose>
            <xsl:when test="$rel = 'prev'">first module</xsl:when>
            <xsl:otherwise>last module</xsl:otherwise>
          </xsl:choose>
        </span>
      </xsl:otherwise>
    </xsl:choose>
  </xsl:template>

  <xsl:template match="methods">
    <section id="methods">
      <h2>Methods</h2>
      <xsl:choose>
        <xsl:when test="method">
          <ul class="toc">
            <xsl:for-each select="method">
              <li><a href="#method-{name}"><code><xsl:value-of select="name"/></code></a></li>
            </xsl:for-each>
          </ul>
          <xsl:apply-templates select="method"/>
        </xsl:when>
        <xsl:otherwise>
          <p class="none">This module publishes no method.</p>
        </xsl:otherwise>
      </xsl:choose>
    </section>
  </xsl:template>

  <xsl:template match="method">
    <article class="method" id="method-{name}">
      <h3><code><xsl:value-of select="name"/></code></h3>
      <xsl:if test="normalize-space(description) != ''">
        <p class="description"><xsl:value-of select="description"/></p>
      </xsl:if>

      <h4>Parameters</h4>
      <xsl:choose>
        <xsl:when test="parameters/parameter">
          <table class="parameters">
            <thead>
              <tr><th>Name</th><th>Type</th><th>Description</th></tr>
            </thead>
            <tbody>
              <xsl:for-each select="parameters/parameter">
                <tr>
                  <td><code><xsl:value-of select="name"/></code></td>
                  <td class="type"><xsl:value-of select="type"/></td>
                  <td><xsl:value-of select="description"/></td>
                </tr>
              </xsl:for-each>
            </tbody>
          </table>
        </xsl:when>
        <xsl:otherwise>
          <p class="none">None.</p>
        </xsl:otherwise>
      </xsl:choose>

      <h4>Returns</h4>
      <xsl:apply-templates select="return"/>

      <xsl:if test="examples/example">
        <h4>Try it</h4>
        <ul class="examples">
          <xsl:for-each select="examples/example">
            <li><a href="{.}"><code><xsl:value-of select="."/></code></a></li>
          </xsl:for-each>
        </ul>
      </xsl:if>
    </article>
  </xsl:template>

  <xsl:template match="return">
    <xsl:choose>
      <xsl:when test="normalize-space(name) = '' and normalize-space(description) = ''
                      and (normalize-space(type) = '' or type = 'void')">
        <p class="none">Nothing (void).</p>
      </xsl:when>
      <xsl:otherwise>
        <p class="return">
          <xsl:if test="normalize-space(type) != ''">
            <span class="type"><xsl:value-of select="type"/></span>
            <xsl:text> </xsl:text>
          </xsl:if>
          <xsl:if test="normalize-space(name) != ''">
            <code><xsl:value-of select="name"/></code>
          </xsl:if>
          <xsl:if test="normalize-space(description) != ''">
            <xsl:text> — </xsl:text>
            <xsl:value-of select="description"/>
          </xsl:if>
        </p>
      </xsl:otherwise>
    </xsl:choose>
  </xsl:template>
</xsl:stylesheet>
